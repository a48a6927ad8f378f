// The mount-table reader over any text in the form of /proc/self/mountinfo:
// it answers without fault, and what it lists goes through the removable-media
// rule without fault too.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/MountTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 16384) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const kd::MountEntry& m : kd::parseMountTable(text)) {
    if (m.target.find('\0') != std::string::npos) std::abort();
    (void)kd::isRemovableMedia(m);
  }
  return 0;
}
