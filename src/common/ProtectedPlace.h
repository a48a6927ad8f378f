// The places a privileged command must leave alone, as text rules on an
// absolute path: "/", the top-level system folders, the first level of /usr,
// /var and /home, anything inside the kernel's trees (/proc, /sys, /dev), and
// any of a caller's key folders or a folder that holds one.
//
// Header-only and free of the library, so that the privileged co-process
// judges a path by the same rules where it acts on it. Stateless functions;
// callable from any thread.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace kd::place {

inline std::vector<std::string> split(std::string_view path) {
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i < path.size()) {
    std::size_t j = path.find('/', i);
    if (j == std::string_view::npos) j = path.size();
    if (j > i) parts.emplace_back(path.substr(i, j - i));
    i = j + 1;
  }
  return parts;
}

inline std::string join(const std::vector<std::string>& parts) {
  std::string out;
  for (const std::string& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

// "." and ".." resolved as text, repeated and trailing slashes removed.
inline std::string lexical(std::string_view absolute) {
  std::vector<std::string> out;
  for (std::string& part : split(absolute)) {
    if (part == ".") continue;
    if (part == "..") {
      if (!out.empty()) out.pop_back();
      continue;
    }
    out.push_back(std::move(part));
  }
  return join(out);
}

inline bool isSameOrInside(const std::string& inner, const std::string& outer) {
  if (outer == "/") return true;
  return inner == outer ||
         (inner.size() > outer.size() && inner.starts_with(outer) && inner[outer.size()] == '/');
}

// The kernel's own trees, whose links (/proc/self/cwd, /proc/<pid>/root,
// /dev/fd) lead somewhere else in every process.
inline bool isKernelTree(std::string_view topLevel) {
  return topLevel == "proc" || topLevel == "sys" || topLevel == "dev";
}

// Whether a lexical path (its parts) lies in one of the kernel's trees. What
// is inside /dev/shm, the shared-memory tmpfs, is ordinary files.
inline bool isInKernelTree(const std::vector<std::string>& parts) {
  if (parts.empty() || !isKernelTree(parts[0])) return false;
  return !(parts[0] == "dev" && parts.size() >= 3 && parts[1] == "shm");
}

// `place` is absolute and lexical.
inline bool isProtectedPlace(const std::string& place, const std::vector<std::string>& keys) {
  static constexpr std::array<std::string_view, 18> kTopLevel = {
      "bin",  "boot", "dev", "etc",  "home", "lost+found", "media", "mnt", "opt",
      "proc", "root", "run", "sbin", "srv",  "sys",        "tmp",   "usr", "var"};
  const std::vector<std::string> parts = split(place);
  if (parts.empty()) return true;
  if (isInKernelTree(parts)) return true;
  if (parts.size() == 1) {
    for (std::string_view name : kTopLevel)
      if (parts[0] == name) return true;
    if (parts[0].starts_with("lib")) return true;
  }
  if (parts.size() == 2 && (parts[0] == "usr" || parts[0] == "var" || parts[0] == "home"))
    return true;
  for (const std::string& key : keys)
    if (isSameOrInside(key, place)) return true;
  return false;
}

}  // namespace kd::place
