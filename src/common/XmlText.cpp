#include "common/XmlText.h"

#include <charconv>
#include <cstdint>

#include "common/Utf8.h"

namespace kd::xml {

std::optional<std::string> appendReference(std::string_view ref, std::string& out) {
  if (ref == "lt") {
    out += '<';
  } else if (ref == "gt") {
    out += '>';
  } else if (ref == "amp") {
    out += '&';
  } else if (ref == "quot") {
    out += '"';
  } else if (ref == "apos") {
    out += '\'';
  } else if (ref.size() > 1 && ref[0] == '#') {
    const bool hex = ref[1] == 'x';
    const std::string_view digits = ref.substr(hex ? 2 : 1);
    std::uint32_t cp = 0;
    auto [stop, ec] =
        std::from_chars(digits.data(), digits.data() + digits.size(), cp, hex ? 16 : 10);
    const bool xmlChar = cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
                         (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
    if (digits.empty() || ec != std::errc() || stop != digits.data() + digits.size() || !xmlChar)
      return "character reference to no character XML allows";
    utf8::appendCodePoint(out, cp);
  } else {
    std::string shown;
    for (const char c : ref) shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    return "unknown entity &" + shown + ";";
  }
  return std::nullopt;
}

}  // namespace kd::xml
