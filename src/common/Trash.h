// The desktop trash as file managers read it: a "files" folder for the items
// and an "info" folder with one "<name>.trashinfo" record per item.
//
// An item goes to the user's home trash when it lies on the same file system,
// and otherwise to the trash of its own volume: "<top>/.Trash/<uid>" when the
// volume has a ".Trash" folder with the sticky bit that is not a link, else
// "<top>/.Trash-<uid>". An item is never copied into a trash: a trash on
// another file system than the item is refused.
//
// Trashing is two steps so that the move itself may be done by someone else
// (a privileged co-process): `claimTrashSlot` picks the trash, creates the
// record first and exclusively (which claims the name), and answers where the
// item must go; the caller moves it there without replacing anything and, if
// the move fails, gives the name back with `releaseTrashSlot`.
//
// Stateless; callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "common/Error.h"
#include "common/FileOwner.h"

namespace kd {

// How a name that is taken in the trash is changed.
enum class TrashNaming {
  Numbered,  // "clip 2.mov", "clip 3.mov", ... ("notes 2")
  Stamped,   // "clip_<YYYYmmddHHMMSS>.mov", then "..._2.mov"; "notes_<stamp>."
};

struct TrashRequest {
  std::string item;       // absolute path of the item to trash
  std::string homeTrash;  // the home trash folder ($XDG_DATA_HOME/Trash)
  uid_t uid = 0;          // whose trash: names the volume trash folders
  // Given when a root process writes a user's trash: the folders and records
  // it creates are given to this owner.
  std::optional<FileOwner> owner;
  TrashNaming naming = TrashNaming::Numbered;
};

struct TrashSlot {
  std::string destination;  // where the item must be moved (in "files")
  std::string record;       // the record written for it (in "info")
  bool homeTrash = false;   // the home trash, or the item's volume's
};

// Picks the trash for the item, makes its folders where missing and writes
// the record. Fails when the item cannot be trashed: it is missing, no trash
// on its file system can be used, or the record cannot be written.
Result<TrashSlot> claimTrashSlot(const TrashRequest& request);

// The name tried at `attempt` (0 is the item's own name) for an item named
// `name` when earlier names were taken.
std::string trashedName(const std::string& name, TrashNaming naming, int attempt);

// Gives back a claimed name whose item was not moved: the record goes.
void releaseTrashSlot(const TrashSlot& slot);

// Whether `path` (a link not followed) is the root of a mount: the volume it
// holds is no item of the volume above it, and is never trashed.
bool isMountRoot(const std::string& path);

// The folder on whose file system `path` lies that is the top of its mount
// (the last folder upwards with the same device); none when `path` cannot be
// looked at.
std::optional<std::string> mountTopOf(const std::string& path);

}  // namespace kd
