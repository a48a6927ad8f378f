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
#include "files/KdFileManager_Failure.h"
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
bool fallsBack(bool shouldAuth, const kd::Error& error) {
  return shouldAuth && kd::isRightsError(error.code);
}

// The outcome of the last operation on this thread (KdFileManager_Failure.h).
struct LastFailure {
  std::string reason;
  bool needsRights = false;
  std::vector<std::string> attributesNotKept;
};
thread_local LastFailure tLast;

}  // namespace

namespace kd::files {

void clearLastFailure() {
  tLast = LastFailure{};
}

bool failWith(const Error& error, bool needsRights) {
  tLast.reason = error.message();
  tLast.needsRights = needsRights;
  return false;
}

bool failWithCode(int code) {
  return failWith(Error{code}, isRightsError(code));
}

void noteAttributesNotKept(std::vector<std::string> notes) {
  tLast.attributesNotKept = std::move(notes);
}

}  // namespace kd::files

std::string KdFileManager::lastFailureReason() {
  return tLast.reason;
}

std::vector<std::string> KdFileManager::lastAttributesNotKept() {
  return tLast.attributesNotKept;
}

bool KdFileManager::lastFailureNeedsRights() {
  return tLast.needsRights;
}

bool KdFileManager::removeFile(const std::string& givenPath, bool shouldAuth) {
  files::clearLastFailure();
  if (givenPath.empty()) return true;
  const std::string path = files::withoutTrailingSlashes(givenPath);
  if (auto refused =
          files::checkNotFolderAlias(path, "Unable to delete path %@: it ends in \".\" or \"..\".");
      !refused)
    return files::failWith(refused.error());
  if (!exists(path)) {
    // Something may be there that this user may not look at.
    if (errno == ENOENT || errno == ENOTDIR) return true;
  }
  if (auto refused = files::checkNotSystemPath(
          path, "Unable to delete path %@ because it is a system directory.");
      !refused)
    return files::failWith(refused.error());
  if (exists(path)) unlockFile(path);
  const kd::Result<void> removed = files::removeTree(path);
  if (removed) return true;
  files::failWithCode(removed.error().code);
  KdLog::appendLog("Error removing file: %@. Authorizing...", removed.error().message());
  if (!fallsBack(shouldAuth, removed.error())) return false;
  return rights().authRemoveFile(path);
}

bool KdFileManager::createDirectory(const std::string& path, bool shouldAuth) {
  files::clearLastFailure();
  if (!isDriveMountedForPath(path)) {
    kd::platform().systemLog("Unable to create directory. Drive is not mounted.");
    return files::failWith(kd::Error::described("the drive is not mounted"));
  }
  const kd::Result<void> made = kd::createFolders(path, 0777, std::nullopt);
  if (made) return true;
  // The reason told is the system's text alone, without the step.
  const kd::Error error{made.error().code};
  files::failWithCode(error.code);
  KdLog::appendLog("Error creating folder: %@. Authorizing...", error.message());
  if (!fallsBack(shouldAuth, error)) return false;
  return rights().authCreateDir(path);
}

bool KdFileManager::copyFile(const std::optional<std::string>& source,
                             const std::optional<std::string>& toPath, bool shouldAuth) {
  files::clearLastFailure();
  if (!source) {
    KdLog::appendLogAndPrint("Error copying file: source path is nil");
    return files::failWith(kd::Error::described("no source"));
  }
  if (!toPath) {
    KdLog::appendLogAndPrint("Error copying file %@: destination path is nil", *source);
    return files::failWith(kd::Error::described("no destination"));
  }
  const std::string parent = kd::path::deletingLastComponent(*toPath);
  if (!parent.empty() && exists(parent)) unlockFile(parent);
  kd::Result<files::AttributeNotes> copied = files::copyTree(*source, *toPath);
  if (copied) {
    files::noteAttributesNotKept(std::move(*copied));
    return true;
  }
  files::failWithCode(copied.error().code);
  KdLog::appendLog("Error copying file: %@. Authorizing...", copied.error().message());
  if (!fallsBack(shouldAuth, copied.error())) return false;
  return rights().authCopyFile(source, toPath);
}

bool KdFileManager::moveFile(const std::string& givenSource, const std::string& toPath,
                             bool shouldAuth) {
  files::clearLastFailure();
  const std::string source = files::withoutTrailingSlashes(givenSource);
  if (auto refused =
          files::checkNotFolderAlias(source, "Unable to move path %@: it ends in \".\" or \"..\".");
      !refused)
    return files::failWith(refused.error());
  if (auto refused = files::checkNotSystemPath(
          source, "Unable to move path %@ because it is a system directory.");
      !refused)
    return files::failWith(refused.error());
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
    if (files::renameNoReplace(source, between)) {
      if (between == toPath) return true;  // the volume tells the names apart
      if (files::renameNoReplace(between, toPath)) return true;
      // Never leave the item under the intermediate name.
      (void)files::renameNoReplace(between, source);
    }
  }

  kd::Result<files::AttributeNotes> moved = files::moveItem(source, toPath);
  if (moved) {
    files::noteAttributesNotKept(std::move(*moved));
    return true;
  }
  files::failWithCode(moved.error().code);
  KdLog::appendLog("Error moving file: %@.", moved.error().message());
  if (!fallsBack(shouldAuth, moved.error())) return false;
  KdLog::appendLog("Authorizing...");
  return rights().authMoveFile(source, toPath);
}

bool KdFileManager::createEmptyFile(const std::string& path) {
  files::clearLastFailure();
  const std::string temporary = KdLocalPaths::tempFile();
  if (kd::Result<void> made = kd::writeFileAtomically(temporary, ""); !made)
    return files::failWith(made.error());
  if (moveFile(temporary, path)) return true;
  ::unlink(temporary.c_str());
  return false;
}
