#include "platform/linux/LinuxPlatform.h"

namespace kd {

// Placeholder until the logind / utmp lookup lands.
std::optional<std::string> LinuxPlatform::consoleUser() { return std::nullopt; }

}  // namespace kd
