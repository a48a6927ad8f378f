// Digesting a whole open file: the one read loop behind the hashes, the
// offload's checks and the copy's report of a copy that differs.
//
// Plain functions without state of their own; callable from any thread, one
// thread per descriptor.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "files/KdFileManager.h"

namespace kd::copy {

// The digests of the file open at `fd`, from its first byte to its end, in
// every kind of `kinds` from one read. Read with positioned reads, so the
// descriptor's own offset is left alone. `read` (when given) hears of every
// stretch read and may stop the reading by returning false. One text per
// kind, in their order; nothing, with `error` set, when a read fails, the
// reading was stopped or a digest is not available.
std::optional<std::vector<std::string>> digestsOfOpenFile(
    int fd, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, std::string& error);
// The same in one kind.
std::optional<std::string> digestOfOpenFile(int fd, const KdFileManager::CopyDigest& kind,
                                            const std::function<bool(std::uint64_t)>& read,
                                            std::string& error);

}  // namespace kd::copy
