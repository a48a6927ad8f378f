#include "common/Folders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/Path.h"
#include "common/UniqueFd.h"

namespace kd {

namespace {

Error fail(const std::string& what, const std::string& path, int err) {
  return Error{err, what + " " + path};
}

UniqueFd openFolder(int at, const char* name, bool followLinks) {
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW);
  return UniqueFd(retryOnEintr([&] { return ::openat(at, name, flags); }));
}

}  // namespace

Result<void> createFolders(const std::string& path, mode_t mode,
                           const std::optional<FileOwner>& owner) {
  if (path.empty()) return fail("cannot create", path, ENOENT);
  // Relative paths start at the working folder, absolute ones at "/".
  UniqueFd at = openFolder(AT_FDCWD, path[0] == '/' ? "/" : ".", true);
  if (!at) return fail("cannot open", path[0] == '/' ? "/" : ".", errno);
  std::string done = path[0] == '/' ? "/" : "";
  for (const auto& part : path::components(path)) {
    if (part == "/") continue;
    done = path::append(done, part);
    // Existing folders are entered as they are, links included: they are the
    // owner's own arrangement (a linked ~/.config, say).
    UniqueFd next = openFolder(at.get(), part.c_str(), true);
    if (!next && errno == ENOENT) {
      if (owner) {
        struct stat parent {};
        if (::fstat(at.get(), &parent) != 0) return fail("cannot look at", done, errno);
        if (parent.st_uid != owner->uid)
          return fail("will not create for another user", done, EPERM);
      }
      if (::mkdirat(at.get(), part.c_str(), mode) != 0 && errno != EEXIST)
        return fail("cannot create", done, errno);
      // The new folder is opened without following links: if someone swapped
      // a link in, this fails instead of handing over what the link names.
      next = openFolder(at.get(), part.c_str(), false);
      if (!next) return fail("cannot open", done, errno);
      if (owner && ::fchown(next.get(), owner->uid, owner->gid) != 0)
        return fail("cannot give to its owner", done, errno);
    }
    if (!next) return fail("cannot open", done, errno);
    at = std::move(next);
  }
  return success();
}

std::optional<FileOwner> ownerOfNearestFolder(const std::string& path) {
  for (std::string dir = path; !dir.empty(); dir = path::deletingLastComponent(dir)) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) return FileOwner{st.st_uid, st.st_gid};
    if (dir == "/") break;
  }
  return std::nullopt;
}

}  // namespace kd
