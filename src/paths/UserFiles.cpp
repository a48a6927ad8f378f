#include "paths/UserFiles.h"

#include "common/Path.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace kd {

std::optional<FileOwner> ownerOfHomePath(const std::string& path) {
  const std::string homes = platform().homesFolderName();
  auto parts = path::components(path);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts[i] != homes) continue;
    // Only the first such component counts; a trailing "/" is no user name.
    if (i + 1 >= parts.size() || parts[i + 1] == "/" || parts[i + 1].front() == '-')
      return std::nullopt;
    return platform().userIdentifiers(parts[i + 1]);
  }
  return std::nullopt;
}

std::optional<FileOwner> ownerForUserPath(const std::string& path) {
  if (!KdLocalPaths::isRoot()) return std::nullopt;
  auto owner = ownerOfHomePath(path);
  if (!owner || owner->uid == 0) return std::nullopt;
  return owner;
}

}  // namespace kd
