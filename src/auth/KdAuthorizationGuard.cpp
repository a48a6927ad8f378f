// Where a privileged command's path really leads, and whether that place must
// be left alone. The place rules themselves (common/ProtectedPlace.h) are the
// ones the co-process applies again where it removes.
//
// The literal guard of KdLocalPaths compares text only: "/bin/" shortens to
// "/b" and passes, although "rm -Rdf /bin/" follows the link to /usr/bin. Here
// the path is judged where it leads, against a list that also covers what
// holds the standard folders.
#include <limits.h>
#include <stdlib.h>

#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <vector>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "common/ProtectedPlace.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

using kd::place::join;
using kd::place::lexical;
using kd::place::split;

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

// Whether the path, followed as the kernel would, goes below /proc, /sys or
// /dev at any step (also through a link that leads there). Their links name
// another place in every process (/proc/self/cwd is the working folder of
// whoever looks), so a path through them cannot be judged here for the
// co-process or a tool that acts on it. The path's own last link is followed
// only with a trailing slash, as tools do.
bool reachesKernelTrees(const std::string& absolute) {
  std::vector<std::string> pending = split(absolute);
  std::reverse(pending.begin(), pending.end());
  const bool followLast = absolute.size() > 1 && absolute.back() == '/';
  std::vector<std::string> resolved;
  for (int links = 0; !pending.empty();) {
    std::string part = std::move(pending.back());
    pending.pop_back();
    if (part == ".") continue;
    if (part == "..") {
      if (!resolved.empty()) resolved.pop_back();
      continue;
    }
    // Inside a kernel tree, links lead elsewhere in another process: nothing
    // is followed there (on the way to /dev/shm/..., only "shm" may come).
    if (!resolved.empty() && kd::place::isKernelTree(resolved.front()) &&
        !(resolved.front() == "dev" &&
          (resolved.size() == 1 ? part == "shm" : resolved[1] == "shm")))
      return true;
    resolved.push_back(std::move(part));
    if (pending.empty() && !followLast) break;
    char target[PATH_MAX];
    const ssize_t n = ::readlink(join(resolved).c_str(), target, sizeof target);
    if (n <= 0) continue;           // not a link, or nothing there yet: text from here
    if (++links > 40) return true;  // a loop: nothing to act on
    resolved.pop_back();
    if (target[0] == '/') resolved.clear();
    std::vector<std::string> more = split(std::string_view(target, static_cast<std::size_t>(n)));
    pending.insert(pending.end(), more.rbegin(), more.rend());
  }
  return kd::place::isInKernelTree(resolved) && resolved.size() > 1;
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
    if (kd::place::isProtectedPlace(place, keys)) return true;
  return reachesKernelTrees(*absolute);
}

bool KdAuthorization::reachesKernelTrees(const std::string& path) {
  OptString absolute = absolutePath(path);
  return !absolute || ::reachesKernelTrees(*absolute);
}

std::vector<std::string> KdAuthorization::protectedKeyFolders() {
  return keyFolders();
}
