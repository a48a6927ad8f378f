// Path strings joined and split by path-component rules.
//
// Pure text functions with no file-system access; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd::path {

// `base` + "/" + `component` with runs of "/" folded and a trailing "/"
// removed (except for "/" itself). An empty base gives the component alone.
KD_EXPORT std::string append(std::string_view base, std::string_view component);
inline std::string append(const std::string& base, std::string_view component) {
  return append(std::string_view(base), component);
}
inline std::string append(const char* base, std::string_view component) {
  return append(std::string_view(base), component);
}
// As above, absent when the base is absent.
KD_EXPORT std::optional<std::string> append(const std::optional<std::string>& base,
                                            std::string_view component);

// The path's components: an absolute path starts with "/", and a trailing "/"
// yields a final "/" component ("/tmp/" -> "/", "tmp", "/").
KD_EXPORT std::vector<std::string> components(std::string_view path);

// The last component ignoring trailing slashes ("/tmp/" -> "tmp", "/" -> "/").
KD_EXPORT std::string lastComponent(std::string_view path);

// The extension of the last component without its dot; "" when there is none
// or when the only dot leads the name (".DS_Store" has none).
KD_EXPORT std::string extension(std::string_view path);

// The path without its last component ("/a/b" -> "/a", "/a" -> "/", "a" -> "").
KD_EXPORT std::string deletingLastComponent(std::string_view path);

}  // namespace kd::path
