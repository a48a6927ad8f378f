// What the manifest side and the history side of files/mhl share. Internal;
// pure functions, callable from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "common/XmlReader.h"

namespace kd::mhl {

// Bounds on the files read: a manifest of a million files is about 300 MB.
inline constexpr std::size_t kMaxManifestBytes = std::size_t{512} << 20;
inline constexpr std::size_t kMaxChainBytes = std::size_t{32} << 20;

using xml::shown;

// Key of a file and format, for duplicates and the latest hashes.
std::string hashKey(std::string_view format, std::string_view path);

}  // namespace kd::mhl
