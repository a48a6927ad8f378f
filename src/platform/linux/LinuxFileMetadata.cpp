// File metadata on Linux: extended attributes in the "user." name space,
// creation dates from statx (set ones kept in an attribute of ours), the
// locked state as the immutable flag or our marker, labels in an attribute
// of ours mirrored to "user.xdg.tags", and open files from /proc.
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "common/DateText.h"
#include "common/UniqueFd.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ProcText.h"

namespace kd {

namespace {

// Attributes of ours. The creation date set by the library, as seconds since
// 1970 with nanoseconds ("443779200.000000000"); the permission bits an item
// had before we locked it, in octal ("0644"); the label number ("0" to "7").
constexpr const char kCreationDateAttr[] = "user.com.quillfen.creationDate";
constexpr const char kLockedAttr[] = "user.com.quillfen.locked";
constexpr const char kLabelAttr[] = "user.com.quillfen.label";
// The tags file managers read (comma-separated names).
constexpr const char kTagsAttr[] = "user.xdg.tags";

// Names without a Linux name space go into "user.".
std::string linuxName(const std::string& name) {
  for (const char* ns : {"user.", "trusted.", "security.", "system."})
    if (name.rfind(ns, 0) == 0) return name;
  return "user." + name;
}

// A whole attribute value (links not followed unless asked); none when it is
// missing or cannot be read.
std::optional<std::string> readAttr(const std::string& path, const char* name, bool follow) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    ssize_t size = follow ? ::getxattr(path.c_str(), name, nullptr, 0)
                          : ::lgetxattr(path.c_str(), name, nullptr, 0);
    if (size < 0) return std::nullopt;
    std::string value(static_cast<std::size_t>(size), '\0');
    ssize_t got = follow ? ::getxattr(path.c_str(), name, value.data(), value.size())
                         : ::lgetxattr(path.c_str(), name, value.data(), value.size());
    if (got >= 0) {
      value.resize(static_cast<std::size_t>(got));
      return value;
    }
    if (errno != ERANGE) return std::nullopt;  // grew in between: ask again
  }
  return std::nullopt;
}

// The same from an open item.
std::optional<std::string> readAttrAt(int fd, const char* name) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const ssize_t size = ::fgetxattr(fd, name, nullptr, 0);
    if (size < 0) return std::nullopt;
    std::string value(static_cast<std::size_t>(size), '\0');
    const ssize_t got = ::fgetxattr(fd, name, value.data(), value.size());
    if (got >= 0) {
      value.resize(static_cast<std::size_t>(got));
      return value;
    }
    if (errno != ERANGE) return std::nullopt;
  }
  return std::nullopt;
}

// The attribute names of an open item, each ended by a zero byte.
std::optional<std::string> readAttrNames(int fd) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const ssize_t size = ::flistxattr(fd, nullptr, 0);
    if (size < 0) return std::nullopt;
    std::string names(static_cast<std::size_t>(size), '\0');
    const ssize_t got = ::flistxattr(fd, names.data(), names.size());
    if (got >= 0) {
      names.resize(static_cast<std::size_t>(got));
      return names;
    }
    if (errno != ERANGE) return std::nullopt;
  }
  return std::nullopt;
}

// A creation date as our attribute holds it.
std::string creationDateText(FileDate date) {
  return exactSecondsText(date);
}

bool isUnsupported(int err) {
  return err == ENOTSUP || err == ENOTTY || err == EINVAL || err == ENOSYS;
}

// An open descriptor of a regular file or folder itself (never through a
// link), good for the flag ioctls; invalid for other items or unreadable ones.
UniqueFd openForFlags(const std::string& path, const struct stat& st) {
  if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode)) return UniqueFd();
  return UniqueFd(retryOnEintr([&] {
    return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }));
}

std::optional<int> inodeFlags(int fd) {
  int flags = 0;
  if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return std::nullopt;
  return flags;
}

std::vector<std::string> splitTags(const std::string& text) {
  std::vector<std::string> tags;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = std::min(text.find(',', start), text.size());
    if (end > start) tags.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return tags;
}

// Whether any descriptor of /proc/<pid>/fd names the inode, opened for
// writing or for reading and writing.
bool processWritesInode(const std::string& pidDir, dev_t dev, ino_t ino) {
  std::unique_ptr<DIR, int (*)(DIR*)> fds(::opendir((pidDir + "/fd").c_str()), ::closedir);
  if (!fds) return false;
  while (const dirent* e = ::readdir(fds.get())) {
    if (e->d_name[0] == '.') continue;
    struct stat st {};
    if (::fstatat(::dirfd(fds.get()), e->d_name, &st, 0) != 0) continue;  // follows the fd
    if (st.st_dev != dev || st.st_ino != ino) continue;
    std::ifstream info(pidDir + "/fdinfo/" + e->d_name);
    std::stringstream text;
    text << info.rdbuf();
    if (fdinfoOpenForWriting(text.str())) return true;
  }
  return false;
}

}  // namespace

class LinuxFileMetadata final : public FileMetadata {
 public:
  std::int64_t getExtendedAttribute(const std::string& path, const std::string& name, void* buffer,
                                    std::size_t size) override {
    return ::getxattr(path.c_str(), linuxName(name).c_str(), buffer, buffer ? size : 0);
  }

  int setExtendedAttribute(const std::string& path, const std::string& name,
                           std::string_view value) override {
    return ::setxattr(path.c_str(), linuxName(name).c_str(), value.data(), value.size(), 0);
  }

  int removeExtendedAttribute(const std::string& path, const std::string& name) override {
    return ::removexattr(path.c_str(), linuxName(name).c_str());
  }

  std::optional<std::vector<std::string>> listExtendedAttributes(const std::string& path) override {
    std::string names;
    for (int attempt = 0; attempt < 3; ++attempt) {
      ssize_t size = ::listxattr(path.c_str(), nullptr, 0);
      if (size < 0) return std::nullopt;
      names.assign(static_cast<std::size_t>(size), '\0');
      ssize_t got = ::listxattr(path.c_str(), names.data(), names.size());
      if (got >= 0) {
        names.resize(static_cast<std::size_t>(got));
        break;
      }
      if (errno != ERANGE) return std::nullopt;
    }
    std::vector<std::string> out;
    for (std::size_t i = 0; i < names.size();) {
      std::string n(names.c_str() + i);
      i += n.size() + 1;
      if (n.rfind("user.", 0) == 0) n.erase(0, 5);
      if (!n.empty()) out.push_back(std::move(n));
    }
    return out;
  }

  std::vector<std::string> copyExtendedAttributes(int from, int to) override {
    std::vector<std::string> notKept;
    std::optional<std::string> names = readAttrNames(from);
    if (!names) return notKept;  // none, or a file system without attributes
    for (std::size_t i = 0; i < names->size();) {
      const std::string name(names->c_str() + i);
      i += name.size() + 1;
      // Only the user's own attributes travel with a copy; the others belong
      // to the system (security labels, access lists) or to root.
      if (name.rfind("user.", 0) != 0) continue;
      std::optional<std::string> value = readAttrAt(from, name.c_str());
      if (!value) continue;  // removed meanwhile
      if (::fsetxattr(to, name.c_str(), value->data(), value->size(), 0) != 0)
        notKept.push_back(name.substr(5));
    }
    return notKept;
  }

  std::optional<FileDate> creationDate(const std::string& path) override {
    if (auto set = readAttr(path, kCreationDateAttr, /*follow=*/false)) {
      char* end = nullptr;
      long long sec = std::strtoll(set->c_str(), &end, 10);
      long nsec = 0;
      if (end && *end == '.') nsec = std::strtol(end + 1, nullptr, 10);
      return FileDate(std::chrono::duration_cast<FileDate::duration>(
          std::chrono::seconds(sec) + std::chrono::nanoseconds(nsec)));
    }
    struct statx stx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx) != 0 ||
        !(stx.stx_mask & STATX_BTIME))
      return std::nullopt;
    return FileDate(std::chrono::duration_cast<FileDate::duration>(
        std::chrono::seconds(stx.stx_btime.tv_sec) +
        std::chrono::nanoseconds(stx.stx_btime.tv_nsec)));
  }

  Result<void> setCreationDate(const std::string& path, std::optional<FileDate> date) override {
    int rc = 0;
    if (!date) {
      rc = ::lremovexattr(path.c_str(), kCreationDateAttr);
      if (rc != 0 && errno == ENODATA) rc = 0;
    } else {
      const std::string text = creationDateText(*date);
      rc = ::lsetxattr(path.c_str(), kCreationDateAttr, text.data(), text.size(), 0);
    }
    if (rc != 0) return Error::fromErrno();
    return success();
  }

  Result<void> setCreationDateOf(int fd, FileDate date) override {
    const std::string text = creationDateText(date);
    if (::fsetxattr(fd, kCreationDateAttr, text.data(), text.size(), 0) == 0) return success();
    return Error::fromErrno();
  }

  bool isLocked(const std::string& path) override {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || S_ISLNK(st.st_mode)) return false;
    if (UniqueFd fd = openForFlags(path, st)) {
      auto flags = inodeFlags(fd.get());
      if (flags && (*flags & FS_IMMUTABLE_FL)) return true;
    }
    return ::lgetxattr(path.c_str(), kLockedAttr, nullptr, 0) >= 0;
  }

  Result<void> setLocked(const std::string& path, bool locked) override {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return Error::fromErrno();
    if (S_ISLNK(st.st_mode)) return success();  // a link has neither flag nor bits of its own
    UniqueFd fd = openForFlags(path, st);
    std::optional<int> flags = fd ? inodeFlags(fd.get()) : std::nullopt;
    return fromCode(locked ? lock(path, st, fd, flags) : unlock(path, fd, flags));
  }

  int labelNumber(const std::string& path) override {
    auto value = readAttr(path, kLabelAttr, /*follow=*/true);
    if (!value || value->size() != 1 || (*value)[0] < '0' || (*value)[0] > '7') return 0;
    return (*value)[0] - '0';
  }

  bool setLabelNumber(const std::string& path, int number) override {
    if (number < 0 || number > 7) return false;
    int rc = number == 0
                 ? ::removexattr(path.c_str(), kLabelAttr)
                 : ::setxattr(path.c_str(), kLabelAttr, std::to_string(number).c_str(), 1, 0);
    if (rc != 0 && !(number == 0 && errno == ENODATA)) return false;
    // Mirror the colour to the tags file managers show, keeping other tags.
    std::vector<std::string> tags;
    for (auto& tag : splitTags(readAttr(path, kTagsAttr, true).value_or(""))) {
      bool colour = false;
      for (std::size_t i = 1; i < kLabelColourNames.size(); ++i)
        colour = colour || tag == kLabelColourNames[i];
      if (!colour) tags.push_back(std::move(tag));
    }
    if (number > 0) tags.emplace_back(kLabelColourNames[static_cast<std::size_t>(number)]);
    std::string joined;
    for (const auto& tag : tags) joined += (joined.empty() ? "" : ",") + tag;
    if (joined.empty())
      ::removexattr(path.c_str(), kTagsAttr);
    else
      ::setxattr(path.c_str(), kTagsAttr, joined.data(), joined.size(), 0);
    return true;
  }

  bool isOpenForWriting(const std::string& path) override {
    struct stat target {};
    if (::stat(path.c_str(), &target) != 0) return false;
    std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
    if (!proc) return false;
    while (const dirent* e = ::readdir(proc.get())) {
      if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
      if (processWritesInode(std::string("/proc/") + e->d_name, target.st_dev, target.st_ino))
        return true;
    }
    return false;
  }

 private:
  // Locks or unlocks: 0 or the error number of the step that failed.
  int lock(const std::string& path, const struct stat& st, const UniqueFd& fd,
           std::optional<int> flags) {
    if (flags && (*flags & FS_IMMUTABLE_FL)) return 0;
    // The immutable flag where this process may set it (root, or the
    // capability to change it)...
    if (flags) {
      int want = *flags | FS_IMMUTABLE_FL;
      if (::ioctl(fd.get(), FS_IOC_SETFLAGS, &want) == 0) return 0;
    }
    // ...otherwise our marker with the bits to restore, and no write bits.
    if (::lgetxattr(path.c_str(), kLockedAttr, nullptr, 0) >= 0) return 0;  // locked by us
    char bits[16];
    std::snprintf(bits, sizeof bits, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    if (::lsetxattr(path.c_str(), kLockedAttr, bits, std::strlen(bits), XATTR_CREATE) != 0)
      return errno;
    if (::fchmodat(AT_FDCWD, path.c_str(), st.st_mode & 07777 & ~0222u, AT_SYMLINK_NOFOLLOW) != 0) {
      int err = errno;
      ::lremovexattr(path.c_str(), kLockedAttr);
      return err;
    }
    return 0;
  }

  int unlock(const std::string& path, const UniqueFd& fd, std::optional<int> flags) {
    if (flags && (*flags & FS_IMMUTABLE_FL)) {
      int want = *flags & ~FS_IMMUTABLE_FL;
      if (::ioctl(fd.get(), FS_IOC_SETFLAGS, &want) != 0) return errno;
    }
    auto marker = readAttr(path, kLockedAttr, /*follow=*/false);
    if (!marker) {
      // Never locked by us, or a file system without attributes (exFAT and
      // FAT cards): nothing to undo.
      if (errno == ENODATA || isUnsupported(errno)) return 0;
      return errno;
    }
    char* end = nullptr;
    unsigned long bits = std::strtoul(marker->c_str(), &end, 8);
    if (end == marker->c_str() || bits > 07777) {
      ::lremovexattr(path.c_str(), kLockedAttr);  // not ours to interpret: drop it
      return 0;
    }
    if (::fchmodat(AT_FDCWD, path.c_str(), static_cast<mode_t>(bits), AT_SYMLINK_NOFOLLOW) != 0)
      return errno;
    if (::lremovexattr(path.c_str(), kLockedAttr) != 0 && errno != ENODATA) return errno;
    return 0;
  }
};

FileMetadata& LinuxPlatform::fileMetadata() {
  static LinuxFileMetadata* instance = new LinuxFileMetadata();  // never destroyed
  return *instance;
}

}  // namespace kd
