#include "common/XmlText.h"

#include <charconv>
#include <cstdint>

#include "common/DateText.h"
#include "common/Utf8.h"

namespace kd::xml {

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

namespace {

bool isXmlChar(char32_t cp) {
  return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
         (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

}  // namespace

std::size_t unfitCharacterAt(std::string_view s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    const auto c = static_cast<unsigned char>(s[i]);
    const bool nonCharacter =  // U+FFFE, U+FFFF: EF BF BE, EF BF BF
        c == 0xEF && i + 2 < s.size() && s[i + 1] == '\xBF' &&
        (s[i + 2] == '\xBE' || s[i + 2] == '\xBF');
    if ((c < 0x20 && !isSpace(s[i])) || nonCharacter) return i;
  }
  return std::string_view::npos;
}

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
    if (digits.empty() || ec != std::errc() || stop != digits.data() + digits.size() ||
        !isXmlChar(cp))
      return "character reference to no character XML allows";
    utf8::appendCodePoint(out, cp);
  } else {
    std::string shown;
    for (const char c : ref) shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    return "unknown entity &" + shown + ";";
  }
  return std::nullopt;
}

bool appendEscaped(std::string& out, std::string_view s, Escape how) {
  std::string shown;
  if (how == Escape::Display) {
    shown = utf8::withBytesShown(s);
    s = shown;
  } else if (!utf8::isValid(s) || unfitCharacterAt(s) != std::string_view::npos) {
    return false;
  }
  std::size_t run = 0;  // start of the characters not yet copied
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char* escaped = nullptr;
    std::size_t length = 1;
    switch (s[i]) {
      case '&':
        escaped = "&amp;";
        break;
      case '<':
        escaped = "&lt;";
        break;
      case '>':
        escaped = "&gt;";
        break;
      case '"':
        escaped = "&quot;";
        break;
      case '\'':
        escaped = "&#39;";
        break;
      case '\t':
        if (how == Escape::Attribute) escaped = "&#9;";
        break;
      case '\n':
        if (how != Escape::Content) escaped = how == Escape::Attribute ? "&#10;" : "&#xFFFD;";
        break;
      case '\r':
        escaped = how == Escape::Display ? "&#xFFFD;" : "&#13;";
        break;
      default:
        if (how == Escape::Display && unfitCharacterAt(s.substr(i, 3)) == 0) {
          escaped = "&#xFFFD;";
          length = utf8::validSequenceAt(s, i);
        }
    }
    if (escaped) {
      out.append(s.substr(run, i - run)).append(escaped);
      i += length - 1;
      run = i + 1;
    }
  }
  out.append(s.substr(run));
  return true;
}

std::optional<long long> dateTimeSeconds(std::string_view text) {
  text = trimmed(text);
  auto digits = [&](std::size_t at, std::size_t count, unsigned& value) {
    if (at + count > text.size()) return false;
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
      if (text[i] < '0' || text[i] > '9') return false;
      value = value * 10 + static_cast<unsigned>(text[i] - '0');
    }
    return true;
  };
  unsigned year, month, day, hour, minute, second;
  if (text.size() < 19 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || !digits(0, 4, year) || !digits(5, 2, month) || !digits(8, 2, day) ||
      !digits(11, 2, hour) || !digits(14, 2, minute) || !digits(17, 2, second) || month < 1 ||
      month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59)
    return std::nullopt;
  std::size_t at = 19;
  if (at < text.size() && text[at] == '.') {
    const std::size_t start = ++at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    if (at == start) return std::nullopt;
  }
  long long offset = 0;
  if (at < text.size()) {
    const std::string_view zone = text.substr(at);
    unsigned oh, om;
    if (zone == "Z") {
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':' &&
               digits(at + 1, 2, oh) && digits(at + 4, 2, om) && om <= 59 &&
               oh * 60 + om <= 14 * 60) {
      offset = (zone[0] == '-' ? -1 : 1) * static_cast<long long>(oh * 3600 + om * 60);
    } else {
      return std::nullopt;
    }
  }
  const long long days = daysFromCivil(year, month, day);
  if (civilFromSeconds(days * 86400).day != day) return std::nullopt;  // such as February 30
  return days * 86400 + hour * 3600 + minute * 60 + second - offset;
}

}  // namespace kd::xml
