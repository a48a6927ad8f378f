#include "platform/Platform.h"

#include <atomic>

namespace kd {
namespace {
std::atomic<Platform*> gOverride{nullptr};
}  // namespace

Platform& platform() {
  Platform* p = gOverride.load(std::memory_order_acquire);
  return p ? *p : nativePlatform();
}

void setPlatformForTesting(Platform* fake) {
  gOverride.store(fake, std::memory_order_release);
}

}  // namespace kd
