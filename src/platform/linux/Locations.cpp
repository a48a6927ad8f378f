#include "platform/linux/LinuxPlatform.h"

namespace kd {

// Placeholder until the XDG table lands.
std::vector<std::string> LinuxPlatform::searchPathForDirectories(DirectoryKind, unsigned) {
  return {};
}

std::optional<std::string> LinuxPlatform::userCacheDirectory() { return std::nullopt; }

}  // namespace kd
