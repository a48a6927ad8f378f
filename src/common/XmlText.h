// Text rules shared by the project's XML reader and writers (property lists,
// hash lists) and by the HTML of the transfer report. Pure functions;
// callable from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kd::xml {

// XML's white space: space, tab, line feed, carriage return.
constexpr bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// `s` without white space at either end.
std::string_view trimmed(std::string_view s);

// Where the first character of the valid UTF-8 text `s` that XML 1.0 does
// not allow is (a control character other than tab, line feed and carriage
// return, U+FFFE or U+FFFF), or npos.
std::size_t unfitCharacterAt(std::string_view s);

// Appends what the reference `ref` (the text between '&' and ';') stands
// for: one of the five predefined entities or a character reference to a
// character XML allows. Otherwise appends nothing and answers why.
std::optional<std::string> appendReference(std::string_view ref, std::string& out);

enum class Escape {
  Content,    // element content
  Attribute,  // a quoted attribute value: tab and line feed kept as references too
  Display,    // text for people in a page: never refused (see below)
};

// Appends `s` escaped: '&', '<', '>', '"' and '\'' as references, a carriage
// return as "&#13;" (a reader would take it for a line end). For Content and
// Attribute, text that is not UTF-8 or holds a character XML 1.0 cannot carry
// at all is refused: false, and nothing appended. For Display, bytes that are
// not UTF-8 are shown as "\xNN" and every control character but tab as
// U+FFFD.
bool appendEscaped(std::string& out, std::string_view s, Escape how = Escape::Content);

// The seconds since 1970 of an xs:dateTime, "YYYY-MM-DDTHH:MM:SS" with an
// optional fraction (dropped) and "Z", an offset "+HH:MM"/"-HH:MM" or nothing
// (taken as UTC); nullopt for anything else, a day the month does not have
// included.
std::optional<long long> dateTimeSeconds(std::string_view text);

}  // namespace kd::xml
