// The log's format engine and escaping: any format with any arguments formats
// without fault, and an escaped format never consumes an argument through a
// conversion whose flag the log prints literally.
#include <cstdint>
#include <string>
#include <string_view>

#include "log/Format.h"
#include "log/KdLog.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first bytes pick the arguments, the rest is the format.
  const unsigned pick = data[0] | (data[1] << 8);
  const std::string_view format(reinterpret_cast<const char*>(data + 2), size - 2);
  const std::string text(format.substr(0, format.size() / 3));
  const std::optional<std::string> none;
  kd::FormatArg pool[] = {kd::FormatArg(static_cast<long long>(pick) - 40000),
                          kd::FormatArg(static_cast<unsigned long long>(pick) << 48),
                          kd::FormatArg(pick / 7.0),
                          kd::FormatArg(text),
                          kd::FormatArg(none),
                          kd::FormatArg(static_cast<const void*>(data)),
                          kd::FormatArg(nullptr),
                          kd::FormatArg(-1e308 * (pick & 1))};
  const std::size_t count = pick % 9;
  kd::FormatArg args[8] = {pool[0], pool[1], pool[2], pool[3], pool[4], pool[5], pool[6], pool[7]};
  for (std::size_t i = 0; i < count; ++i) args[i] = pool[(pick >> i) % 8];
  (void)kd::formatArgs(format, std::span<const kd::FormatArg>(args, count));
  (void)kd::formatArgs(KdLog::escapeTextForLogging(format),
                       std::span<const kd::FormatArg>(args, count));
  return 0;
}
