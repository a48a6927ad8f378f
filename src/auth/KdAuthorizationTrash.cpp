// The privileged trash: the desktop trash of common/Trash.h, with the record
// written by this process (so that it is the user's) and the item moved with
// rights.
//
// A name already in the trash gets the time of trashing,
// "<name>_<YYYYmmddHHMMSS>.<extension>" (a name without extension keeps a
// bare "."), and a number after it while that is taken too. The move never
// replaces anything and is checked afterwards.
#include <sys/stat.h>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "common/Trash.h"
#include "log/Format.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
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

  if (deleteOnRootAccount && !userDirectory_ && root) {
    // On the root account the computed trash path is removed instead.
    const std::string files = kd::path::append(trash, "files");
    const std::string name = kd::path::lastComponent(source);
    int attempt = 0;
    while (
        exists(kd::path::append(files, kd::trashedName(name, kd::TrashNaming::Stamped, attempt))))
      ++attempt;
    return authRemoveFile(
        kd::path::append(files, kd::trashedName(name, kd::TrashNaming::Stamped, attempt)));
  }

  kd::TrashRequest request;
  request.item = source;
  request.homeTrash = trash;
  request.naming = kd::TrashNaming::Stamped;
  request.uid = ::getuid();
  // A root process writes the trash for the user whose home it is.
  if (root) {
    struct stat home {};
    if (OptString dir = userDirectory_ ? userDirectory_ : KdLocalPaths::userDirectory();
        dir && ::stat(dir->c_str(), &home) == 0) {
      request.owner = kd::FileOwner{home.st_uid, home.st_gid};
      request.uid = home.st_uid;
    }
  }
  kd::Result<kd::TrashSlot> slot = kd::claimTrashSlot(request);
  if (!slot) {
    kd::platform().systemLog(
        kd::format("Unable to trash path %@: %@.", source, slot.error().message()));
    return false;
  }
  // mv -n reports success when it skips an existing destination: look.
  if (moveFile(source, slot->destination)) return true;
  kd::releaseTrashSlot(*slot);
  return false;
}
