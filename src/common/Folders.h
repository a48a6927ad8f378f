// Creating folders, for this process or for another user.
//
// Stateless; callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "common/Error.h"
#include "common/FileOwner.h"

namespace kd {

// Creates `path` and its missing parents with `mode` (settings, logs and crash
// reports are private to their user: 0700). Succeeds when `path` is a folder
// afterwards, also when it already was; the error names the step and the
// folder ("cannot create /a/b").
//
// With `owner` (a root process making folders in a user's home), each folder
// it creates is given to that owner through a descriptor opened without
// following links, and a folder is only ever created inside a folder that
// already belongs to that owner: links the user placed on the way can never
// make root create, or hand over, folders outside the user's own tree.
Result<void> createFolders(const std::string& path, mode_t mode,
                           const std::optional<FileOwner>& owner);

// The owner of the nearest existing folder at or above `path`; none when no
// part of the path can be looked at.
std::optional<FileOwner> ownerOfNearestFolder(const std::string& path);

}  // namespace kd
