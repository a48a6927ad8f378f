#include "platform/Platform.h"

#include <atomic>

namespace kd {
namespace {
std::atomic<Platform*> gOverride{nullptr};
std::atomic<bool> gSystemLogOnStandardError{true};
}  // namespace

Platform& platform() {
  Platform* p = gOverride.load(std::memory_order_acquire);
  return p ? *p : nativePlatform();
}

void setSystemLogOnStandardError(bool print) {
  gSystemLogOnStandardError.store(print, std::memory_order_relaxed);
}

bool systemLogOnStandardError() {
  return gSystemLogOnStandardError.load(std::memory_order_relaxed);
}

void setPlatformForTesting(Platform* fake) {
  gOverride.store(fake, std::memory_order_release);
}

}  // namespace kd
