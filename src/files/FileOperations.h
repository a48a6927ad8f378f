// The ordinary file operations under KdFileManager's operations: removal,
// copying and moving that never replace anything, each answering 0 or the
// system's error number; and the failure record of the operations.
//
// Stateless apart from the failure record, which is per thread; callable from
// any thread.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd::files {

// Removes the item and everything below it without following links; a
// missing item counts as removed. Folders of the caller's own that lack the
// owner's rights get them back on the way. A path whose last component is
// "." or ".." is refused with EINVAL. Stops at the first failure.
int removeTree(const std::string& path);

// Whether the path's last component is "." or "..": it names a folder by
// another name (through a link too), never an item of its own.
bool namesFolderByAlias(const std::string& path);

// Renames without replacing: EEXIST when something is at `to`.
int renameNoReplace(const std::string& from, const std::string& to);

// Sets the modification time of the item itself (a link is not followed),
// keeping its access time. Both times are passed: exFAT through FUSE ignores
// a modification time sent without an access time. 0 or the errno.
int setModificationTime(const std::string& path, const struct timespec& modified);

// Copies a file, link or folder to `to`, which must not exist: links stay
// links, permissions and modification times are kept, files are synced. The
// copy is made under a temporary name beside `to` and takes the name only
// when complete; a failed copy leaves nothing.
int copyTree(const std::string& from, const std::string& to);

// Renames, or across file systems copies (as copyTree) and removes the
// source once the copy is complete.
int moveItem(const std::string& from, const std::string& to);

// The entry names of a folder (without "." and ".."), in the file system's
// order; none with errno set when it cannot be listed. `followLink` decides
// whether a link at `folder` itself is followed.
std::optional<std::vector<std::string>> entryNames(const std::string& folder,
                                                   bool followLink = true);

// The entry names of an open folder; the descriptor stays the caller's.
std::optional<std::vector<std::string>> entryNamesAt(int folder);

// Lower case by Unicode's simple mapping (ASCII where no UTF-8 locale exists).
std::string lowercase(std::string_view text);

// A name for a temporary item beside `path` that nobody else uses.
std::string temporarySibling(const std::string& path, std::string_view purpose);

// The path without trailing slashes ("/" stays), so that an operation on
// "link/" acts on the link and not on where it leads.
std::string withoutTrailingSlashes(std::string path);

// Whether a destructive operation must not act on the path (the system's and
// the user's standard folders, "/" and what holds them; see
// KdAuthorization::isProtectedTarget). Logs `message` with the path to the
// system log when it refuses.
bool refusesSystemPath(const std::string& path, const char* message);

// Whether an operation must not act on the path because it ends in "." or
// ".." (namesFolderByAlias). Logs `message` with the path to the application
// log when it refuses.
bool refusesFolderAlias(const std::string& path, const char* message);

// The failure record of the current thread.
void clearFailure();
void recordFailure(int error);
void recordFailure(const std::string& reason, bool needsRights = false);
// The last failure recorded: what went wrong, and whether rights were missing.
const std::string& failureReason();
bool failureNeedsRights();
// Extended attributes that a copy could not keep (its file system holds
// none): noted per item on the current thread, cleared with the failure
// record, each as "<item>: <name>, <name>".
void noteAttributesNotKept(const std::string& item, const std::vector<std::string>& names);
const std::vector<std::string>& attributesNotKept();
// Whether an error number means "no rights": a permission error or a locked item.
bool isRightsError(int error);

}  // namespace kd::files
