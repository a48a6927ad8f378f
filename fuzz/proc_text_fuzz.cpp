// The /proc texts: any fdinfo text answers whether it opens for writing, and
// any executable link's text gives a name without a slash, both without fault.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/ProcText.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 8192) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)kd::fdinfoOpenForWriting(text);
  const std::string name = kd::executableNameOfLink(text);
  if (name.size() > text.size()) std::abort();
  if (name.find('/') != std::string::npos && name != "/") std::abort();
  return 0;
}
