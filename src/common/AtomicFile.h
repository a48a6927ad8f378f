// Whole-file reads and atomic whole-file writes.
//
// Stateless; callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "common/Error.h"
#include "common/FileOwner.h"

namespace kd {

// Replaces `path` with `bytes`: a temporary file in the same folder flushed
// to the device, rename over the target, the folder flushed. The target is
// either the old file or the new one, never a mixture. The new file keeps the
// mode of a regular file it replaces and, with `owner`, belongs to that user
// before it is renamed into place (by descriptor, so nobody can swap a link in
// between). The error says which step failed on which file ("cannot write
// <temporary>: ...").
Result<void> writeFileAtomically(const std::string& path, std::string_view bytes,
                                 const std::optional<FileOwner>& owner = std::nullopt);

// Whether writeFileAtomicallyAt may replace a file already at the name.
enum class AtomicReplace { Replace, NoReplace };

// As writeFileAtomically, for the entry `name` of the folder `dirFd` (so a
// link swapped in for a folder on the way cannot redirect it). The temporary
// file is created with `mode` (less the umask) and never follows a link. With
// NoReplace an existing entry at `name` is never replaced: the file is moved
// into place with a rename that never replaces (fileio::renameNoReplace), or
// where the file system lacks that, linked into place, or as a last resort
// (file systems without either, such as exFAT) created there exclusively and
// written, so that a crash may leave it partial but nothing is ever
// overwritten.
Result<void> writeFileAtomicallyAt(int dirFd, const std::string& name, std::string_view bytes,
                                   AtomicReplace how, mode_t mode = 0644);

// What kind of failure kept a whole-file read from its bytes: callers treat a
// missing file (a first run) apart from one they refuse.
enum class ReadFailure {
  Missing,     // nothing at the path (or a dangling link)
  NotRegular,  // a folder, a named pipe, a device, or a link where links are refused
  TooLarge,    // larger than the caller's limit
  Unreadable,  // exists but cannot be opened or read (permissions, I/O error)
};

// Why a whole-file read failed: the kind and the error ("Permission denied",
// "not a regular file", "larger than 4096 bytes").
struct ReadError {
  ReadFailure kind;
  Error error;
};

// The whole contents of a regular file of at most `maxBytes`. The file is
// opened without blocking (a named pipe or device never stalls the caller)
// and checked to be a regular file before anything is read. With
// `followLinks` false a symbolic link at `path` is refused.
Result<std::string, ReadError> readRegularFile(const std::string& path, std::size_t maxBytes,
                                               bool followLinks = true);

// As readRegularFile, for `name` relative to the folder `dirFd` (AT_FDCWD for
// the working folder).
Result<std::string, ReadError> readRegularFileAt(int dirFd, const std::string& name,
                                                 std::size_t maxBytes, bool followLinks = true);

}  // namespace kd
