// The desktop trash of KdFileManager: single items, a folder's entries, and
// the files of a tree picked by extension or name.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "common/Trash.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"
#include "files/KdFileManager_Failure.h"
#include "log/Format.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

namespace files = kd::files;

// The home trash and, for a root process, the user it is written for.
struct HomeTrash {
  std::string folder;
  uid_t uid = 0;
  std::optional<kd::FileOwner> owner;
};

std::optional<HomeTrash> homeTrash() {
  HomeTrash home;
  home.uid = kd::platform().realUserId();
  std::optional<std::string> data = KdLocalPaths::libraryDirectory(true);
  if (KdLocalPaths::isRoot()) {
    struct stat st {};
    if (std::optional<std::string> user = KdLocalPaths::userDirectory();
        data && user && ::stat(user->c_str(), &st) == 0) {
      // The console user's trash, written for that user.
      home.owner = kd::FileOwner{st.st_uid, st.st_gid};
      home.uid = st.st_uid;
    } else {
      // Nobody at the console: root's own.
      std::vector<std::string> own =
          kd::platform().searchPathForDirectories(kd::DirectoryKind::Library, kd::UserDomainMask);
      data = own.empty() ? std::nullopt : std::optional(own.front());
    }
  }
  if (!data) return std::nullopt;
  home.folder = kd::path::append(*data, "Trash");
  return home;
}

std::string absolute(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  std::optional<std::string> cwd = kd::platform().currentDirectory();
  return cwd ? kd::path::append(*cwd, path) : path;
}

// Calls `visit` for every entry below the folder that is not a folder, in
// listing order; links below the folder count as entries and are never
// followed.
void walk(const std::string& folder, bool top,
          const std::function<void(const std::string& path, const std::string& name)>& visit) {
  kd::Result<std::vector<std::string>> names = files::entryNames(folder, top);
  if (!names) return;
  for (const std::string& name : *names) {
    const std::string path = kd::path::append(folder, name);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode))
      walk(path, false, visit);
    else
      visit(path, name);
  }
}

}  // namespace

bool KdFileManager::trashFile(const std::string& givenPath, bool shouldAuth) {
  files::clearLastFailure();
  if (givenPath.empty()) return true;
  const std::string path = files::withoutTrailingSlashes(absolute(givenPath));
  if (auto refused =
          files::checkNotFolderAlias(path, "Unable to trash path %@: it ends in \".\" or \"..\".");
      !refused)
    return files::failWith(refused.error());
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) return true;
  if (auto refused = files::checkNotSystemPath(
          path, "Unable to trash path %@ because it is a system directory.");
      !refused)
    return files::failWith(refused.error());
  if (kd::isMountRoot(path)) {
    // Refused before anything is unlocked or made: a volume is unmounted.
    const std::string why = "it is where a volume is mounted (unmount the volume instead)";
    kd::platform().systemLog(kd::format("Unable to trash path %@: %@.", path, why));
    return files::failWith(kd::Error::described(why));
  }
  if (::lstat(path.c_str(), &st) == 0) unlockFile(path);
  // Only a move that the user's rights refused is tried again with rights:
  // the privileged trash claims its name as this user too, so a trash that
  // cannot be used now cannot be used then either.
  bool rightsWouldHelp = false;
  std::string why;
  if (std::optional<HomeTrash> home = homeTrash()) {
    kd::TrashRequest request{path, home->folder, home->uid, home->owner, kd::TrashNaming::Numbered};
    if (kd::Result<kd::TrashSlot> slot = kd::claimTrashSlot(request); !slot) {
      // Claimed as this user, with rights too: rights would not help.
      why = slot.error().message();
    } else if (const kd::Result<void> renamed = files::renameNoReplace(path, slot->destination);
               !renamed) {
      kd::releaseTrashSlot(*slot);
      why = renamed.error().message();
      rightsWouldHelp = kd::isRightsError(renamed.error().code);
    } else {
      return true;
    }
  } else {
    why = "the user has no home trash";
  }
  files::failWith(kd::Error::described(why), rightsWouldHelp);
  // Only the outcome is reported: a lack of rights is for the caller to mend
  // (with rights, now or on a second call), so it is recorded, not logged.
  if (!rightsWouldHelp) {
    kd::platform().systemLog(kd::format("Unable to trash path %@: %@.", path, why));
    return false;
  }
  if (!shouldAuth) return false;
  if (!KdAuthorization::sharedController().authTrashFile(path)) return false;
  files::clearLastFailure();
  return true;
}

bool KdFileManager::trashDirectoryContents(const std::string& folder, bool shouldAuth) {
  files::clearLastFailure();
  kd::Result<std::vector<std::string>> names = files::entryNames(folder);
  if (!names) {
    if (names.error().code == ENOENT) return true;  // nothing there: nothing to trash
    return files::failWithCode(names.error().code);
  }
  bool allTrashed = true;
  std::string firstFailure;
  bool firstNeedsRights = false;
  for (const std::string& name : *names) {
    if (!trashFile(kd::path::append(folder, name), shouldAuth) && allTrashed) {
      allTrashed = false;
      firstFailure = name + ": " + lastFailureReason();
      firstNeedsRights = lastFailureNeedsRights();
    }
  }
  if (!allTrashed) files::failWith(kd::Error::described(firstFailure), firstNeedsRights);
  return allTrashed;
}

std::vector<std::string> KdFileManager::trashFilesOfType(const std::string& type,
                                                         const std::string& folder) {
  const std::string wanted = files::lowercase(type);
  std::vector<std::string> trashed;
  // No type would pick every file without an extension.
  if (wanted.empty()) return trashed;
  walk(folder, true, [&](const std::string& path, const std::string& name) {
    if (files::lowercase(kd::path::extension(name)) == wanted && trashFile(path))
      trashed.push_back(path);
  });
  return trashed;
}

std::vector<std::string> KdFileManager::trashFilesNamed(const std::string& name,
                                                        const std::string& folder) {
  std::vector<std::string> trashed;
  walk(folder, true, [&](const std::string& path, const std::string& entry) {
    if (entry == name && trashFile(path)) trashed.push_back(path);
  });
  return trashed;
}
