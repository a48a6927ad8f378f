#include "common/Utf8.h"

namespace kd::utf8 {

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

std::size_t decodeAt(std::string_view s, std::size_t i, char32_t& cp) {
  const std::size_t len = validSequenceAt(s, i);
  if (len == 0) return 0;
  static constexpr unsigned char kLeadBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  char32_t value = static_cast<unsigned char>(s[i]) & kLeadBits[len];
  for (std::size_t k = 1; k < len; ++k)
    value = (value << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
  cp = value;
  return len;
}

std::size_t decodeBefore(std::string_view s, std::size_t end, char32_t& cp) {
  for (std::size_t len = 1; len <= 4 && len <= end; ++len) {
    const auto byte = static_cast<unsigned char>(s[end - len]);
    if ((byte & 0xC0) == 0x80) continue;  // a continuation byte: look further back
    return validSequenceAt(s, end - len) == len ? decodeAt(s, end - len, cp) : 0;
  }
  return 0;
}

bool isValid(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    std::size_t len = validSequenceAt(s, i);
    if (len == 0) return false;
    i += len;
  }
  return true;
}

void appendCodePoint(std::string& out, char32_t cp) {
  if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

std::size_t codePointCount(std::string_view s) {
  std::size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80;
  return n;
}

std::string_view firstCodePoints(std::string_view s, std::size_t count) {
  std::size_t seen = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) {
      if (seen == count) return s.substr(0, i);
      ++seen;
    }
  }
  return s;
}

std::size_t utf16Length(std::string_view s) {
  std::size_t n = 0;
  for (unsigned char c : s) {
    if ((c & 0xC0) != 0x80) ++n;
    if (c >= 0xF0) ++n;  // a surrogate pair
  }
  return n;
}

std::string withBytesReplaced(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (std::size_t i = 0; i < s.size();) {
    if (const std::size_t length = validSequenceAt(s, i)) {
      out.append(s, i, length);
      i += length;
    } else {
      out.append(kReplacement);
      ++i;
    }
  }
  return out;
}

std::string withBytesShown(std::string_view s) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < s.size();) {
    if (const std::size_t length = validSequenceAt(s, i)) {
      out.append(s, i, length);
      i += length;
      continue;
    }
    const auto byte = static_cast<unsigned char>(s[i++]);
    out += "\\x";
    out += kHex[byte >> 4];
    out += kHex[byte & 15];
  }
  return out;
}

}  // namespace kd::utf8
