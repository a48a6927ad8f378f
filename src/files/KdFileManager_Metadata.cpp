// Extended attributes, locking, permissions and desktop notices of
// KdFileManager.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "common/Path.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "files/KdFileManager.h"
#include "log/Format.h"
#include "log/KdLog.h"
#include "platform/Platform.h"

namespace {

// The longest attribute value read: the read asks for this many bytes
// whatever size the first look reported.
constexpr std::size_t kAttributeReadLimit = 255;

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

// Calls `visit(fullPath, isFolder)` for each entry of the folder. The folder
// given is opened as asked (`followTop`); entries are judged without
// following links, so a link below it counts as itself.
template <class Visit>
void forEachEntry(const std::string& folder, bool followTop, Visit&& visit) {
  kd::UniqueFd fd(kd::retryOnEintr([&] {
    return ::open(folder.c_str(),
                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followTop ? 0 : O_NOFOLLOW));
  }));
  if (!fd) return;
  std::unique_ptr<DIR, DirCloser> dir(::fdopendir(fd.get()));
  if (!dir) return;
  fd.release();
  std::vector<std::pair<std::string, bool>> entries;
  while (const dirent* e = ::readdir(dir.get())) {
    const std::string_view name(e->d_name);
    if (name == "." || name == "..") continue;
    struct stat st {};
    if (::fstatat(::dirfd(dir.get()), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    entries.emplace_back(kd::path::append(folder, name), S_ISDIR(st.st_mode));
  }
  dir.reset();  // one descriptor per level while descending
  for (const auto& [path, isFolder] : entries) visit(path, isFolder);
}

void lockTree(const std::string& folder, bool lock, bool top) {
  forEachEntry(folder, top, [lock](const std::string& path, bool isFolder) {
    if (isFolder)
      lockTree(path, lock, false);
    else
      lock ? KdFileManager::lockFile(path) : KdFileManager::unlockFile(path);
  });
}

void setLocked(const std::string& path, bool locked) {
  const kd::Result<void> done = kd::platform().fileMetadata().setLocked(path, locked);
  if (!done) KdLog::fastAppendLog("Unable to unlock file %@: %@", path, done.error().message());
}

}  // namespace

void KdFileManager::notifyFileSystemChanged(const std::string& path) {
  FSRef ref = stringToFSRef(path);
  kd::platform().desktop().noteFileSystemChanged(stringWithFSRef(&ref));
}

KdFileManager::FSRef KdFileManager::stringToFSRef(const std::string& path) {
  return FSRef{path};
}

std::string KdFileManager::stringWithFSRef(const FSRef* ref) {
  return ref ? ref->path : std::string();
}

bool KdFileManager::isFileLocked(const std::string& path) {
  return !path.empty() && kd::platform().fileMetadata().isLocked(path);
}

void KdFileManager::lockFile(const std::string& path) {
  setLocked(path, true);
}

void KdFileManager::unlockFile(const std::string& path) {
  setLocked(path, false);
}

void KdFileManager::lockFolder(const std::string& path) {
  lockTree(path, true, true);
}

void KdFileManager::unlockFolder(const std::string& path) {
  lockTree(path, false, true);
}

void KdFileManager::setPosixPermissions(unsigned permissions, const std::string& forFile) {
  if (::chmod(forFile.c_str(), static_cast<mode_t>(permissions & 07777)) != 0)
    KdLog::appendLog("Error setting permissions for file %@: %@", forFile, std::strerror(errno));
}

void KdFileManager::disableFileSystemCachingForFile(const std::string&) {}

std::optional<std::string> KdFileManager::metadataValueForKey(const std::string& key,
                                                              const std::string& file) {
  auto& metadata = kd::platform().fileMetadata();
  const std::int64_t size = metadata.getExtendedAttribute(file, key, nullptr, 0);
  const int err = errno;
  kd::platform().systemLog(kd::format("buffer val: %i", size));
  if (size < 0) {
    kd::platform().systemLog(kd::format("Error retrieving file attribute: %i", err));
    return std::nullopt;
  }
  // A value longer than the read would come back cut short: none instead.
  if (size == 0 || static_cast<std::uint64_t>(size) > kAttributeReadLimit) return std::nullopt;
  std::vector<char> buffer(kAttributeReadLimit);
  const std::int64_t got =
      metadata.getExtendedAttribute(file, key, buffer.data(), kAttributeReadLimit);
  if (got <= 0) return std::nullopt;
  std::string value(buffer.data(), static_cast<std::size_t>(std::min(got, size)));
  if (!kd::utf8::isValid(value)) return std::nullopt;
  return value;
}

bool KdFileManager::setMetadataValue(const std::string& value, const std::string& forKey,
                                     const std::string& file) {
  const int rc = kd::platform().fileMetadata().setExtendedAttribute(file, forKey, value);
  if (rc == 0) return true;
  kd::platform().systemLog(
      kd::format("Error setting extended attribute for file %@ - %i", file, rc));
  return false;
}

bool KdFileManager::registerApplicationWithLaunchServices(const std::string& path) {
  return !path.empty() && kd::platform().desktop().registerApplication(path);
}
