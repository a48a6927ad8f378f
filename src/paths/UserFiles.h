// Who owns the files a process writes into a user's home.
//
// Stateless; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>

#include "../common/FileOwner.h"

namespace kd {

// The user whose home folder holds `path` ("/Users/bob/..." on macOS,
// "/home/bob/..." on Linux: the first component equal to the platform's homes
// folder, then the user's name), with that user's primary group. None when the
// path lies in no home, names an unknown user or one whose name would read as
// an option ("-x").
KD_EXPORT std::optional<FileOwner> ownerOfHomePath(const std::string& path);

// The owner to give a file or folder that this process creates at `path`:
// for a root process writing into a user's home, that user (so a root run
// never leaves the user with files it cannot change); none otherwise, and the
// file keeps the process's own identity.
KD_EXPORT std::optional<FileOwner> ownerForUserPath(const std::string& path);

}  // namespace kd
