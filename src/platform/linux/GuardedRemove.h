// Removal with root's rights of a path judged where it is removed: the parent
// folder is opened once (no magic link of /proc followed on the way), its real
// place is judged by the protected-place rules, and everything below is
// removed through that descriptor (openat with O_NOFOLLOW, unlinkat). A link
// is removed, never followed; a parent swapped for a link after the opening
// changes nothing; nothing on another file system than the parent's (a volume
// mounted at or below the item) is touched.
//
// Header-only so that the privileged co-process needs nothing else of the
// library. Stateless functions; callable from any thread.
#pragma once

#ifndef __linux__
#error "GuardedRemove is built on Linux only"
#endif

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "common/ProtectedPlace.h"
#include "common/UniqueFd.h"

namespace kd::guarded {

// Opens a folder for use as a directory descriptor; no magic link (such as
// /proc/self/cwd) is followed on the way. -1 with errno on failure.
inline int openFolderNoMagic(const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(retryOnEintr(
      [&] { return ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how); }));
}

// Where an open folder really is, as the kernel names it.
inline std::string placeOf(int fd) {
  char buf[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t n = ::readlink(link.c_str(), buf, sizeof buf);
  return n > 0 && buf[0] == '/' ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

// Removes `name` below `folder`, a tree when it is a folder; the first error
// (0 when all went), continuing past failures. ENOENT counts as done.
inline int removeBelow(int folder, const std::string& name, dev_t device) {
  struct stat st {};
  if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? 0 : errno;
  if (!S_ISDIR(st.st_mode))
    return ::unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
  // Another file system mounted below (a card, a drive) is not ours to empty.
  if (st.st_dev != device) return EXDEV;
  UniqueFd dir(retryOnEintr([&] {
    return ::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
  if (!dir) return errno == ENOENT ? 0 : errno;
  struct stat opened {};
  if (::fstat(dir.get(), &opened) != 0 || opened.st_dev != st.st_dev || opened.st_ino != st.st_ino)
    return EAGAIN;  // swapped between the look and the opening
  std::vector<std::string> names;
  {
    const int listing = ::dup(dir.get());
    DIR* d = listing >= 0 ? ::fdopendir(listing) : nullptr;
    if (!d) {
      if (listing >= 0) ::close(listing);
      return errno;
    }
    while (dirent* entry = ::readdir(d)) {
      const std::string n = entry->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    ::closedir(d);
  }
  int first = 0;
  for (const std::string& n : names) {
    const int err = removeBelow(dir.get(), n, device);
    if (!first) first = err;
  }
  if (::unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT && !first)
    first = errno;
  return first;
}

// Removes `path` (absolute; trailing slashes ignored, its own link never
// followed) unless it or where its parent really is counts as protected
// (system places and `keys`). 0 when it is gone or was never there; EPERM
// when refused; otherwise the first error.
inline int removePath(const std::string& path, const std::vector<std::string>& keys) {
  if (path.empty() || path.front() != '/') return EINVAL;
  std::vector<std::string> parts = place::split(path);
  if (parts.empty()) return EPERM;
  const std::string name = parts.back();
  if (name == "." || name == "..") return EPERM;
  parts.pop_back();
  // Text first: a path written through the kernel's trees is refused as such.
  if (place::isProtectedPlace(place::lexical(path), keys)) return EPERM;
  UniqueFd parent(openFolderNoMagic(place::join(parts)));
  if (!parent) {
    if (errno == ENOENT || errno == ENOTDIR) return 0;  // nothing there
    return errno == ELOOP || errno == EXDEV ? EPERM : errno;
  }
  struct statfs fs {};
  if (::fstatfs(parent.get(), &fs) != 0) return errno;
  if (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC || fs.f_type == DEVPTS_SUPER_MAGIC)
    return EPERM;
  const std::string where = placeOf(parent.get());
  if (where.empty()) return EPERM;
  if (place::isProtectedPlace(place::lexical(where + "/" + name), keys)) return EPERM;
  // A volume mounted at the path itself is not emptied either.
  struct stat folder {};
  if (::fstat(parent.get(), &folder) != 0) return errno;
  return removeBelow(parent.get(), name, folder.st_dev);
}

}  // namespace kd::guarded
