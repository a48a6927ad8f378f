// Whole-file reads and atomic whole-file writes.
//
// Stateless; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kd {

// Replaces `path` with `bytes`: a temporary file in the same folder, fsync,
// rename over the target, fsync of the folder. The target is either the old
// file or the new one, never a mixture. On failure `error` gets the reason.
bool writeFileAtomically(const std::string& path, std::string_view bytes,
                         std::string* error = nullptr);

// The whole contents of a regular file of at most `maxBytes`; none otherwise.
std::optional<std::string> readWholeFile(const std::string& path,
                                         std::size_t maxBytes = 64u << 20);

}  // namespace kd
