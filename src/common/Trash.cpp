#include "common/Trash.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/Folders.h"
#include "common/Path.h"
#include "common/UniqueFd.h"

namespace kd {

namespace {

std::string localTime(const char* format) {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::localtime_r(&now, &tm);
  char buf[32];
  return std::string(buf, std::strftime(buf, sizeof buf, format, &tm));
}

// A path as the record writes it: bytes outside the unreserved set and "/"
// percent-encoded.
std::string encodePath(const std::string& path) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '-' || c == '_' || c == '.' || c == '~' || c == '/';
    if (plain) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

// The device of the nearest existing folder at or above `path`.
std::optional<dev_t> deviceOfNearest(const std::string& path) {
  for (std::string dir = path; !dir.empty(); dir = path::deletingLastComponent(dir)) {
    struct stat st {};
    if (::stat(dir.c_str(), &st) == 0) return st.st_dev;
    if (dir == "/") break;
  }
  return std::nullopt;
}

// The parent folder of the item with its links resolved, so that the record
// and the volume's top are judged on where the item really lies.
std::string realParent(const std::string& item) {
  const std::string parent = path::deletingLastComponent(item);
  char resolved[PATH_MAX];
  return ::realpath(parent.c_str(), resolved) ? std::string(resolved) : parent;
}

// A private folder of the trash: made when missing, and then it must be a
// real folder (no link) belonging to `uid` or to the item's owner (file
// systems without owners show one owner for everything).
bool usableFolder(const std::string& folder, uid_t uid, uid_t itemOwner,
                  const std::optional<FileOwner>& owner) {
  if (::mkdir(folder.c_str(), 0700) == 0) {
    if (owner && ::lchown(folder.c_str(), owner->uid, owner->gid) != 0) return false;
  } else if (errno != EEXIST) {
    return false;
  }
  struct stat st {};
  return ::lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
         (st.st_uid == uid || st.st_uid == itemOwner);
}

// The volume trash for an item below `top`: ".Trash/<uid>" in a sticky
// ".Trash" that is no link, else ".Trash-<uid>".
std::optional<std::string> volumeTrash(const std::string& top, uid_t uid, uid_t itemOwner,
                                       const std::optional<FileOwner>& owner) {
  const std::string shared = path::append(top, ".Trash");
  struct stat st {};
  if (::lstat(shared.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX)) {
    const std::string mine = path::append(shared, std::to_string(uid));
    if (usableFolder(mine, uid, itemOwner, owner)) return mine;
  }
  const std::string own = path::append(top, ".Trash-" + std::to_string(uid));
  if (usableFolder(own, uid, itemOwner, owner)) return own;
  return std::nullopt;
}

std::string candidateName(const std::string& name, TrashNaming naming, const std::string& stamp,
                          int attempt) {
  // The time of the first try names every later one, so that "_2" follows
  // the stamp that was taken.
  if (attempt == 0) return name;
  const std::string extension = path::extension(name);
  const std::string stem =
      extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1);
  if (naming == TrashNaming::Stamped) {
    std::string taken = stem + "_" + stamp;
    if (attempt > 1) taken += "_" + std::to_string(attempt);
    return taken + "." + extension;
  }
  std::string taken = stem + " " + std::to_string(attempt + 1);
  return extension.empty() ? taken : taken + "." + extension;
}

}  // namespace

bool isMountRoot(const std::string& path) {
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &sx) != 0)
    return false;
  if (sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT)
    return (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  // A kernel that does not say: a folder on another device than its parent.
  struct stat st {
  }, above{};
  const std::string up = path::deletingLastComponent(path);
  return S_ISDIR(sx.stx_mode) && ::lstat(path.c_str(), &st) == 0 &&
         ::stat(up.empty() ? "." : up.c_str(), &above) == 0 && above.st_dev != st.st_dev;
}

std::optional<std::string> mountTopOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  std::string top = path;
  while (top != "/" && !top.empty()) {
    const std::string up = path::deletingLastComponent(top);
    struct stat above {};
    if (up.empty() || ::stat(up.c_str(), &above) != 0 || above.st_dev != st.st_dev) break;
    top = up;
  }
  return top;
}

Result<TrashSlot> claimTrashSlot(const TrashRequest& request) {
  const std::string& item = request.item;
  const std::string name = path::lastComponent(item);
  if (item.empty() || item[0] != '/' || name.empty() || name == "/" || name == "." ||
      name == "..") {
    return Error::described("not an item that can be trashed");
  }
  struct stat itemStat {};
  if (::lstat(item.c_str(), &itemStat) != 0) {
    const int err = errno;
    // A place the user may not look into: its folder tells the volume.
    if (err == ENOENT || err == ENOTDIR ||
        ::stat(path::deletingLastComponent(item).c_str(), &itemStat) != 0) {
      return Error{err};
    }
    itemStat.st_uid = request.uid;
  } else if (isMountRoot(item)) {
    // Its volume's trash would be made on the volume above, for nothing.
    return Error::described("it is where a volume is mounted (unmount the volume instead)");
  }

  const std::string parent = realParent(item);
  const std::string realItem = path::append(parent, name);
  std::string trash, recordPath = realItem;
  bool home = deviceOfNearest(request.homeTrash) == itemStat.st_dev;
  if (home) {
    trash = request.homeTrash;
    if (!createFolders(trash, 0700, request.owner).ok()) {
      return Error::described("cannot create the trash " + trash);
    }
  } else {
    std::optional<std::string> top = mountTopOf(parent);
    std::optional<std::string> folder =
        top ? volumeTrash(*top, request.uid, itemStat.st_uid, request.owner) : std::nullopt;
    if (!folder) {
      return Error::described("no trash can be made on the item's volume");
    }
    trash = *folder;
    // The record of a volume trash names the item from the volume's top.
    if (*top != "/" && realItem.starts_with(*top + "/"))
      recordPath = realItem.substr(top->size() + 1);
  }
  const std::string files = path::append(trash, "files");
  const std::string info = path::append(trash, "info");
  for (const std::string& folder : {files, info}) {
    if (!usableFolder(folder, request.owner ? request.owner->uid : request.uid, itemStat.st_uid,
                      request.owner)) {
      return Error::described("cannot use the trash folder " + folder);
    }
  }
  struct stat filesStat {};
  if (::stat(files.c_str(), &filesStat) != 0 || filesStat.st_dev != itemStat.st_dev) {
    // Moving there would copy the whole item across volumes.
    return Error::described("it is not on the volume of the trash");
  }

  UniqueFd infoFd(retryOnEintr(
      [&] { return ::open(info.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!infoFd) {
    const int err = errno;
    return Error{err};
  }
  const std::string stamp = localTime("%Y%m%d%H%M%S");
  const std::string text = "[Trash Info]\nPath=" + encodePath(recordPath) +
                           "\nDeletionDate=" + localTime("%Y-%m-%dT%H:%M:%S") + "\n";
  // Claim the name with the record: whoever creates it first owns the name.
  for (int attempt = 0; attempt < 100000; ++attempt) {
    const std::string candidate = candidateName(name, request.naming, stamp, attempt);
    struct stat st {};
    if (::lstat(path::append(files, candidate).c_str(), &st) == 0) continue;
    const std::string recordName = candidate + ".trashinfo";
    UniqueFd fd(retryOnEintr([&] {
      return ::openat(infoFd.get(), recordName.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!fd) {
      if (errno == EEXIST) continue;
      const int err = errno;
      return Error{err};
    }
    bool written = retryOnEintr([&] { return ::write(fd.get(), text.data(), text.size()); }) ==
                   static_cast<ssize_t>(text.size());
    if (request.owner && ::fchown(fd.get(), request.owner->uid, request.owner->gid) != 0)
      written = false;
    if (!written) {
      const int err = errno ? errno : EIO;
      ::unlinkat(infoFd.get(), recordName.c_str(), 0);
      return Error{err};
    }
    return TrashSlot{path::append(files, candidate), path::append(info, recordName), home};
  }
  return Error::described("no free name in the trash");
}

std::string trashedName(const std::string& name, TrashNaming naming, int attempt) {
  return candidateName(name, naming, localTime("%Y%m%d%H%M%S"), attempt);
}

void releaseTrashSlot(const TrashSlot& slot) {
  ::unlink(slot.record.c_str());
}

}  // namespace kd
