#include "platform/linux/LinuxPlatform.h"

namespace kd {

// Placeholders until the workspace services land.
std::vector<std::string> LinuxPlatform::mountedRemovableMedia() { return {}; }
bool LinuxPlatform::isApplicationRunning(std::string_view) { return false; }
std::optional<std::string> LinuxPlatform::bundledApplication(const std::string&) {
  return std::nullopt;
}
bool LinuxPlatform::openFileWithApplication(const std::string&, const std::string&) {
  return false;
}
bool LinuxPlatform::openFileWithBundleIdentifier(const std::string&, std::string_view) {
  return false;
}

}  // namespace kd
