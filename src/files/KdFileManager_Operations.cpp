// Removing, creating, copying and moving, with the fall-back to administrator
// rights, of KdFileManager.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "auth/KdAuthorization.h"
#include "common/AtomicFile.h"
#include "common/Folders.h"
#include "common/Path.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"
#include "log/Format.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

namespace files = kd::files;

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

KdAuthorization& rights() {
  return KdAuthorization::sharedController();
}

// The fall-back decision: asked for, and needed because rights were missing.
bool fallsBack(bool shouldAuth, int error) {
  return shouldAuth && files::isRightsError(error);
}

}  // namespace

std::string KdFileManager::lastFailureReason() {
  return files::failureReason();
}

std::vector<std::string> KdFileManager::lastAttributesNotKept() {
  return files::attributesNotKept();
}

bool KdFileManager::lastFailureNeedsRights() {
  return files::failureNeedsRights();
}

bool KdFileManager::removeFile(const std::string& givenPath, bool shouldAuth) {
  files::clearFailure();
  if (givenPath.empty()) return true;
  const std::string path = files::withoutTrailingSlashes(givenPath);
  if (files::refusesFolderAlias(path, "Unable to delete path %@: it ends in \".\" or \"..\"."))
    return false;
  if (!exists(path)) {
    // Something may be there that this user may not look at.
    if (errno == ENOENT || errno == ENOTDIR) return true;
  }
  if (files::refusesSystemPath(path, "Unable to delete path %@ because it is a system directory."))
    return false;
  if (exists(path)) unlockFile(path);
  const int err = files::removeTree(path);
  if (err == 0) return true;
  files::recordFailure(err);
  KdLog::appendLog("Error removing file: %@. Authorizing...", std::strerror(err));
  if (!fallsBack(shouldAuth, err)) return false;
  return rights().authRemoveFile(path);
}

bool KdFileManager::createDirectory(const std::string& path, bool shouldAuth) {
  files::clearFailure();
  if (!isDriveMountedForPath(path)) {
    kd::platform().systemLog("Unable to create directory. Drive is not mounted.");
    files::recordFailure("the drive is not mounted", false);
    return false;
  }
  errno = 0;
  if (!path.empty() && kd::createFolders(path, 0777, std::nullopt)) return true;
  const int err = path.empty() ? ENOENT : (errno ? errno : EIO);
  files::recordFailure(err);
  KdLog::appendLog("Error creating folder: %@. Authorizing...", std::strerror(err));
  if (!fallsBack(shouldAuth, err)) return false;
  return rights().authCreateDir(path);
}

bool KdFileManager::copyFile(const std::optional<std::string>& source,
                             const std::optional<std::string>& toPath, bool shouldAuth) {
  files::clearFailure();
  if (!source) {
    KdLog::appendLogAndPrint("Error copying file: source path is nil");
    files::recordFailure("no source", false);
    return false;
  }
  if (!toPath) {
    KdLog::appendLogAndPrint("Error copying file %@: destination path is nil", *source);
    files::recordFailure("no destination", false);
    return false;
  }
  const std::string parent = kd::path::deletingLastComponent(*toPath);
  if (!parent.empty() && exists(parent)) unlockFile(parent);
  const int err = files::copyTree(*source, *toPath);
  if (err == 0) return true;
  files::recordFailure(err);
  KdLog::appendLog("Error copying file: %@. Authorizing...", std::strerror(err));
  if (!fallsBack(shouldAuth, err)) return false;
  return rights().authCopyFile(source, toPath);
}

bool KdFileManager::moveFile(const std::string& givenSource, const std::string& toPath,
                             bool shouldAuth) {
  files::clearFailure();
  const std::string source = files::withoutTrailingSlashes(givenSource);
  if (files::refusesFolderAlias(source, "Unable to move path %@: it ends in \".\" or \"..\".") ||
      files::refusesSystemPath(source, "Unable to move path %@ because it is a system directory."))
    return false;
  // Nothing is ever replaced, so the only destination a move changes is the
  // source itself under another letter case: only that one is unlocked.
  // Anything else there makes the move fail below, untouched.
  struct stat from {
  }, there{};
  if (::lstat(toPath.c_str(), &there) == 0 && ::lstat(source.c_str(), &from) == 0 &&
      from.st_dev == there.st_dev && from.st_ino == there.st_ino)
    unlockFile(toPath);

  // A change of letter case only, which a volume that ignores case would
  // take for a move onto itself: through a free intermediate name.
  if (files::lowercase(source) == files::lowercase(toPath) && source != toPath) {
    const std::string between = uniqueFilename(toPath);
    if (files::renameNoReplace(source, between) == 0) {
      if (between == toPath) return true;  // the volume tells the names apart
      if (files::renameNoReplace(between, toPath) == 0) return true;
      // Never leave the item under the intermediate name.
      files::renameNoReplace(between, source);
    }
  }

  const int err = files::moveItem(source, toPath);
  if (err == 0) return true;
  files::recordFailure(err);
  KdLog::appendLog("Error moving file: %@.", std::strerror(err));
  if (!fallsBack(shouldAuth, err)) return false;
  KdLog::appendLog("Authorizing...");
  return rights().authMoveFile(source, toPath);
}

bool KdFileManager::createEmptyFile(const std::string& path) {
  files::clearFailure();
  const std::string temporary = KdLocalPaths::tempFile();
  std::string why;
  if (!kd::writeFileAtomically(temporary, "", &why)) {
    files::recordFailure(why, false);
    return false;
  }
  if (moveFile(temporary, path)) return true;
  ::unlink(temporary.c_str());
  return false;
}
