#include "platform/linux/LinuxPlatform.h"

namespace kd {

// Placeholder until the crash handler lands.
void LinuxPlatform::installCrashHandler(const std::string&, const std::string&) {}

}  // namespace kd
