// Removal and renaming with root's rights of paths judged where they are
// changed: the parent folder is opened once (no magic link of /proc followed
// on the way), its real place is judged by the protected-place rules, and the
// change is made through that descriptor. A removal works below it (openat with O_NOFOLLOW,
// unlinkat). A link is removed, never followed; a parent swapped for a link after the opening
// changes nothing; nothing on another file system than the parent's (a volume
// mounted at or below the item) is touched.
//
// Header-only so that the privileged co-process needs nothing else of the
// library. Stateless functions; callable from any thread.
#pragma once

#ifndef __linux__
#error "GuardedFiles is built on Linux only"
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
#include <cstdio>
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

// The parent folder of `path` (absolute), opened without following a magic
// link, and the last component; refused (EPERM) for a last component of "."
// or "..", a path written through or leading into the kernel's trees, or one
// whose real place counts as protected (system places and `keys`; only when
// `judge`). ENOENT when the parent is not there.
struct Parent {
  UniqueFd fd;
  std::string name;
  int error = 0;
};

inline Parent openParent(const std::string& path, const std::vector<std::string>& keys,
                         bool judge) {
  Parent out;
  if (path.empty() || path.front() != '/') {
    out.error = EINVAL;
    return out;
  }
  std::vector<std::string> parts = place::split(path);
  if (parts.empty() || parts.back() == "." || parts.back() == "..") {
    out.error = EPERM;
    return out;
  }
  out.name = parts.back();
  parts.pop_back();
  const std::string written = place::lexical(path);
  // Text first: a path written through the kernel's trees is refused as such.
  if ((judge && place::isProtectedPlace(written, keys)) ||
      place::isInKernelTree(place::split(written))) {
    out.error = EPERM;
    return out;
  }
  out.fd.reset(openFolderNoMagic(place::join(parts)));
  if (!out.fd) {
    out.error = errno == ELOOP || errno == EXDEV ? EPERM : errno;
    return out;
  }
  struct statfs fs {};
  if (::fstatfs(out.fd.get(), &fs) != 0) {
    out.error = errno;
    return out;
  }
  const std::string where = placeOf(out.fd.get());
  const std::string real = place::lexical(where + "/" + out.name);
  if (fs.f_type == PROC_SUPER_MAGIC || fs.f_type == SYSFS_MAGIC ||
      fs.f_type == DEVPTS_SUPER_MAGIC || where.empty() ||
      place::isInKernelTree(place::split(real)) || (judge && place::isProtectedPlace(real, keys)))
    out.error = EPERM;
  return out;
}

// Removes `path` (absolute; trailing slashes ignored, its own link never
// followed) unless it or where its parent really is counts as protected
// (system places and `keys`). 0 when it is gone or was never there; EPERM
// when refused; otherwise the first error.
inline int removePath(const std::string& path, const std::vector<std::string>& keys) {
  Parent parent = openParent(path, keys, true);
  if (parent.error) return parent.error == ENOENT || parent.error == ENOTDIR ? 0 : parent.error;
  // A volume mounted at the path itself is not emptied either.
  struct stat folder {};
  if (::fstat(parent.fd.get(), &folder) != 0) return errno;
  return removeBelow(parent.fd.get(), parent.name, folder.st_dev);
}

// Renames `source` to `destination` (both absolute; their own links never
// followed) without replacing anything: the source judged as for a removal,
// the destination refused only in the kernel's trees. 0 when done; EPERM when
// refused; EXDEV across file systems (the caller copies instead); otherwise
// the system's error (EEXIST when something is at the destination).
inline int renamePath(const std::string& source, const std::string& destination,
                      const std::vector<std::string>& keys) {
  Parent from = openParent(source, keys, true);
  if (from.error) return from.error;
  Parent to = openParent(destination, keys, false);
  if (to.error) return to.error;
  if (::renameat2(from.fd.get(), from.name.c_str(), to.fd.get(), to.name.c_str(),
                  RENAME_NOREPLACE) != 0)
    return errno;
  return 0;
}

}  // namespace kd::guarded
