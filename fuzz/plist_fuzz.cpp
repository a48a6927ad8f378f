// Property-list reader: any bytes either parse or are refused as damaged, and
// whatever parses survives a write and a read in the binary form unchanged
// (the XML form may refuse text it cannot carry, but what it writes reads back
// unchanged too).
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "common/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kd::PlistFile file = kd::parsePlist(bytes);
  if (file.status != kd::PlistReadStatus::Ok) {
    if (file.status != kd::PlistReadStatus::Damaged || file.reason.empty()) std::abort();
    return 0;
  }
  for (auto format : {kd::PlistFormat::Binary, kd::PlistFormat::Xml}) {
    auto written = kd::serializePlist(file.dict, format);
    if (!written) {
      if (format == kd::PlistFormat::Binary) std::abort();  // binary holds every value
      continue;
    }
    kd::PlistFile again = kd::parsePlist(*written);
    if (again.status != kd::PlistReadStatus::Ok || again.format != format) std::abort();
    // NaN is the one value that is not equal to itself.
    if (!(again.dict == file.dict) && *kd::serializePlist(again.dict, format) != *written)
      std::abort();
  }
  return 0;
}
