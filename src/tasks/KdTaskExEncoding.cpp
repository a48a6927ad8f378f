// Decoding captured output as text. Tool output is never refused for a bad
// byte: what cannot be decoded shows as U+FFFD, so the rest stays readable.
#include "tasks/KdTaskEx.h"

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

void appendCodePoint(std::string* out, unsigned cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Length of the valid UTF-8 sequence at `i`, or 0 when it is not one
// (overlong forms, surrogates and values above U+10FFFF included).
std::size_t validSequenceAt(std::string_view s, std::size_t i) {
  const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char b0 = byte(i);
  if (b0 < 0x80) return 1;
  std::size_t len;
  unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  if (i + len > s.size()) return 0;
  if (byte(i + 1) < lo || byte(i + 1) > hi) return 0;
  for (std::size_t k = 2; k < len; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  return len;
}

}  // namespace

std::optional<std::string> KdTaskEx::stringFromData(std::string_view data,
                                                    StringEncoding encoding) {
  std::string out;
  out.reserve(data.size());
  switch (encoding) {
    case ASCIIStringEncoding:
      for (char c : data) {
        if (static_cast<unsigned char>(c) < 0x80) {
          out.push_back(c);
        } else {
          out.append(kReplacement);
        }
      }
      return out;
    case UTF8StringEncoding:
      for (std::size_t i = 0; i < data.size();) {
        std::size_t len = validSequenceAt(data, i);
        if (len == 0) {
          out.append(kReplacement);
          ++i;
        } else {
          out.append(data.substr(i, len));
          i += len;
        }
      }
      return out;
    case ISOLatin1StringEncoding:
      for (char c : data) appendCodePoint(&out, static_cast<unsigned char>(c));
      return out;
    default:
      return std::nullopt;
  }
}
