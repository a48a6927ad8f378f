// Where a privileged command's path really leads, and whether that place must
// be left alone.
//
// The literal guard of KdLocalPaths compares text only: "/bin/" shortens to
// "/b" and passes, although "rm -Rdf /bin/" follows the link to /usr/bin. Here
// the path is judged where it leads, against a list that also covers what
// holds the standard folders.
#include <limits.h>
#include <stdlib.h>

#include <array>
#include <string_view>
#include <vector>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

std::vector<std::string> split(std::string_view path) {
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

std::string join(const std::vector<std::string>& parts) {
  std::string out;
  for (const std::string& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

// "." and ".." resolved as text, repeated and trailing slashes removed.
std::string lexical(std::string_view absolute) {
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

std::optional<std::string> realPath(const std::string& path) {
  char buf[PATH_MAX];
  if (!::realpath(path.c_str(), buf)) return std::nullopt;
  return std::string(buf);
}

// The path with every link the kernel would follow resolved, as far as the
// path exists; the part that does not exist yet is added as text.
std::string resolveExisting(const std::string& path) {
  if (auto real = realPath(path)) return *real;
  std::string parent = kd::path::deletingLastComponent(path);
  if (parent.empty() || parent == path) return lexical(path);
  return lexical(resolveExisting(parent) + "/" + kd::path::lastComponent(path));
}

// The path as a tool acting on it (not following its last link) reaches it:
// its parent folders resolved, its last component kept.
std::string resolveParent(const std::string& path) {
  std::vector<std::string> parts = split(path);
  if (parts.empty()) return "/";
  const std::string last = parts.back();
  if (last == "." || last == "..") return resolveExisting(path);
  parts.pop_back();
  return lexical(resolveExisting(join(parts)) + "/" + last);
}

bool isSameOrInside(const std::string& inner, const std::string& outer) {
  if (outer == "/") return true;
  return inner == outer ||
         (inner.size() > outer.size() && inner.starts_with(outer) && inner[outer.size()] == '/');
}

// Folders that hold the system or the user's standard layout: the target may
// be none of them, nor anything that holds one.
std::vector<std::string> keyFolders() {
  using L = KdLocalPaths;
  std::vector<std::optional<std::string>> found = {
      L::userDirectory(),
      L::desktopDirectory(),
      L::movieDirectory(),
      L::systemLibraryDirectory(),
      L::localDocumentationDirectory(),
  };
  using DomainOp = L::OptPath (*)(bool);
  for (DomainOp op : {&L::applicationDirectory, &L::adminApplicationDirectory,
                      &L::documentDirectory, &L::libraryDirectory, &L::prefsDirectory,
                      &L::cacheDirectory, &L::appSupportDirectory, &L::logDirectory}) {
    found.push_back(op(true));
    found.push_back(op(false));
  }
  std::vector<std::string> out;
  for (const auto& folder : found) {
    if (folder && !folder->empty() && folder->front() == '/') {
      out.push_back(lexical(*folder));
      out.push_back(resolveExisting(lexical(*folder)));
    }
  }
  return out;
}

bool isProtectedPlace(const std::string& place, const std::vector<std::string>& keys) {
  static constexpr std::array<std::string_view, 18> kTopLevel = {
      "bin",  "boot", "dev", "etc",  "home", "lost+found", "media", "mnt", "opt",
      "proc", "root", "run", "sbin", "srv",  "sys",        "tmp",   "usr", "var"};
  const std::vector<std::string> parts = split(place);
  if (parts.empty()) return true;
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

}  // namespace

KdAuthorization::OptString KdAuthorization::absolutePath(const std::string& path) {
  if (!path.empty() && path.front() == '/') return path;
  std::optional<std::string> cwd = kd::platform().currentDirectory();
  if (!cwd || cwd->empty() || cwd->front() != '/') return std::nullopt;
  return *cwd + "/" + path;
}

bool KdAuthorization::isProtectedTarget(const std::string& path) {
  if (path.empty()) return true;
  OptString absolute = absolutePath(path);
  if (!absolute) return true;
  const std::vector<std::string> keys = keyFolders();
  // Text first ("/usr/../etc" is "/etc"), then where the kernel leads
  // ("/link/.." is the link target's parent).
  std::vector<std::string> places = {lexical(*absolute), resolveParent(*absolute)};
  // A trailing slash makes tools follow a link in the last component.
  if (absolute->back() == '/') places.push_back(resolveExisting(*absolute));
  for (const std::string& place : places)
    if (isProtectedPlace(place, keys)) return true;
  return false;
}
