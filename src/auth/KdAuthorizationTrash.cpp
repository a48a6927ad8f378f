// The privileged trash: the user's desktop trash (a "files" folder for the
// items and an "info" folder with one ".trashinfo" record each, in the
// user's data folder), written the way desktop file managers read it.
//
// A name already in the trash gets the time of trashing,
// "<name>_<YYYYmmddHHMMSS>.<extension>" (a name without extension keeps a
// bare "."), and a number after it while that is taken too. The record is
// created first and exclusively, so that it claims the name; the move never
// replaces anything and is checked afterwards.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "common/UniqueFd.h"
#include "log/Format.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

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

// Creates a folder and its missing parents for the trash's owner.
bool makeFolders(const std::string& folder, const std::optional<struct stat>& owner) {
  struct stat st {};
  if (::stat(folder.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  std::string parent = kd::path::deletingLastComponent(folder);
  if (parent.empty() || parent == folder || !makeFolders(parent, owner)) return false;
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return false;
  if (owner && ::lchown(folder.c_str(), owner->st_uid, owner->st_gid) != 0) return false;
  return true;
}

}  // namespace

bool KdAuthorization::trashInto(const std::string& source, bool deleteOnRootAccount) {
  const bool root = KdLocalPaths::isRoot();
  // The trash of the user's data folder; for a root process that still knows
  // the home of the user who started it, the same folder below that home.
  OptString data = KdLocalPaths::libraryDirectory(true);
  if (root && userDirectory_ && data) {
    OptString home = KdLocalPaths::userDirectory();
    if (home && data->starts_with(*home + "/"))
      data = kd::path::append(*userDirectory_, data->substr(home->size() + 1));
  }
  if (!data) return false;
  const std::string trash = kd::path::append(*data, "Trash");
  const std::string files = kd::path::append(trash, "files");
  const std::string info = kd::path::append(trash, "info");

  const std::string name = kd::path::lastComponent(source);
  const std::string extension = kd::path::extension(name);
  const std::string stem =
      extension.empty() ? name : name.substr(0, name.size() - extension.size() - 1);
  const std::string stamp = localTime("%Y%m%d%H%M%S");
  auto candidate = [&](int attempt) {
    if (attempt == 0) return name;
    std::string taken = stem + "_" + stamp;
    if (attempt > 1) taken += "_" + std::to_string(attempt);
    return taken + "." + extension;
  };
  auto isTaken = [&](const std::string& n) {
    return exists(kd::path::append(files, n)) || exists(kd::path::append(info, n + ".trashinfo"));
  };
  int attempt = 0;
  while (isTaken(candidate(attempt))) ++attempt;

  if (deleteOnRootAccount && !userDirectory_ && root)
    return authRemoveFile(kd::path::append(files, candidate(attempt)));

  struct stat sourceStat {};
  if (::lstat(source.c_str(), &sourceStat) != 0) {
    // A place the user may not look into: its folder tells the volume.
    if (errno == ENOENT || errno == ENOTDIR ||
        ::stat(kd::path::deletingLastComponent(source).c_str(), &sourceStat) != 0)
      return false;
  }
  // A root process writes the trash for the user whose home it is.
  std::optional<struct stat> owner;
  if (root) {
    struct stat home {};
    if (OptString dir = userDirectory_ ? userDirectory_ : KdLocalPaths::userDirectory();
        dir && ::stat(dir->c_str(), &home) == 0)
      owner = home;
  }
  if (!makeFolders(files, owner) || !makeFolders(info, owner)) return false;
  struct stat trashStat {};
  if (::stat(files.c_str(), &trashStat) != 0) return false;
  if (trashStat.st_dev != sourceStat.st_dev) {
    // Moving there would copy the whole item across volumes.
    kd::platform().systemLog(
        kd::format("Unable to trash path %@: it is not on the volume of the trash.", source));
    return false;
  }

  // Claim the name with the record, then move the item under it.
  for (;; ++attempt) {
    const std::string record = kd::path::append(info, candidate(attempt) + ".trashinfo");
    if (exists(kd::path::append(files, candidate(attempt)))) continue;
    kd::UniqueFd fd(
        ::open(record.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd) {
      if (errno == EEXIST) continue;
      return false;
    }
    const std::string text = "[Trash Info]\nPath=" + encodePath(source) +
                             "\nDeletionDate=" + localTime("%Y-%m-%dT%H:%M:%S") + "\n";
    bool written = ::write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (owner && ::fchown(fd.get(), owner->st_uid, owner->st_gid) != 0) written = false;
    if (!written) {
      ::unlink(record.c_str());
      return false;
    }
    const std::string destination = kd::path::append(files, candidate(attempt));
    // mv -n reports success when it skips an existing destination: look.
    if (moveFile(source, destination)) return true;
    ::unlink(record.c_str());
    return false;
  }
}
