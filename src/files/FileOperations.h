// The ordinary file operations under KdFileManager's operations: removal,
// copying and moving that never replace anything, each answering success or
// the Error (the system's error number) that stopped it.
//
// Stateless; callable from any thread.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Error.h"

namespace kd::files {

// Removes the item and everything below it without following links; a
// missing item counts as removed. Folders of the caller's own that lack the
// owner's rights get them back on the way. A path whose last component is
// "." or ".." is refused with EINVAL. Stops at the first failure.
Result<void> removeTree(const std::string& path);

// Whether the path's last component is "." or "..": it names a folder by
// another name (through a link too), never an item of its own.
bool namesFolderByAlias(const std::string& path);

// Renames without replacing: EEXIST when something is at `to`.
Result<void> renameNoReplace(const std::string& from, const std::string& to);

// Sets the modification time of the item itself (a link is not followed),
// keeping its access time. Both times are passed: exFAT through FUSE ignores
// a modification time sent without an access time.
Result<void> setModificationTime(const std::string& path, const struct timespec& modified);

// Copies a file, link or folder to `to`, which must not exist: links stay
// links, permissions and modification times are kept, files are synced. The
// copy is made under a temporary name beside `to` and takes the name only
// when complete; a failed copy leaves nothing. Extended attributes the copy's
// file system cannot hold do not fail it: the answer lists them, one note per
// item, each as "<item>: <name>, <name>".
using AttributeNotes = std::vector<std::string>;
Result<AttributeNotes> copyTree(const std::string& from, const std::string& to);

// Renames, or across file systems copies (as copyTree, with its notes) and
// removes the source once the copy is complete.
Result<AttributeNotes> moveItem(const std::string& from, const std::string& to);

// The entry names of a folder (without "." and ".."), in the file system's
// order. `followLink` decides whether a link at `folder` itself is followed.
Result<std::vector<std::string>> entryNames(const std::string& folder, bool followLink = true);

// The entry names of an open folder; the descriptor stays the caller's.
Result<std::vector<std::string>> entryNamesAt(int folder);

// Lower case by Unicode's simple mapping (ASCII where no UTF-8 locale exists).
std::string lowercase(std::string_view text);

// A name for a temporary item beside `path` that nobody else uses.
std::string temporarySibling(const std::string& path, std::string_view purpose);

// The path without trailing slashes ("/" stays), so that an operation on
// "link/" acts on the link and not on where it leads.
std::string withoutTrailingSlashes(std::string path);

// Fails when a destructive operation must not act on the path (the system's
// and the user's standard folders, "/" and what holds them; see
// KdAuthorization::isProtectedTarget), after logging `message` with the path
// to the system log.
Result<void> checkNotSystemPath(const std::string& path, const char* message);

// Fails when an operation must not act on the path because it ends in "." or
// ".." (namesFolderByAlias), after logging `message` with the path to the
// application log.
Result<void> checkNotFolderAlias(const std::string& path, const char* message);

}  // namespace kd::files
