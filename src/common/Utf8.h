// UTF-8 primitives shared by the formatter, the text decoding of tool output
// and the path checks. Pure functions; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kd::utf8 {

// U+FFFD, the replacement character, encoded.
inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

// Length of the valid UTF-8 sequence at `i`, or 0 when there is none (overlong
// forms, surrogates and values above U+10FFFF included).
KD_EXPORT std::size_t validSequenceAt(std::string_view s, std::size_t i);

// Length of the valid UTF-8 sequence at `i` with its code point in `cp`, or 0
// (and `cp` untouched) when there is none.
std::size_t decodeAt(std::string_view s, std::size_t i, char32_t& cp);

// Length of the valid UTF-8 sequence that ends just before `end`, with its
// code point in `cp`, or 0 when there is none.
std::size_t decodeBefore(std::string_view s, std::size_t end, char32_t& cp);

// Whether the whole text is valid UTF-8.
KD_EXPORT bool isValid(std::string_view s);

// The text as valid UTF-8 for people to read: every byte that is not part of
// a valid sequence shown as "\xNN".
KD_EXPORT std::string withBytesShown(std::string_view s);

// The text as valid UTF-8 for a program to use: every byte that is not part
// of a valid sequence replaced by U+FFFD.
std::string withBytesReplaced(std::string_view s);

// Appends the encoding of `cp`; surrogates and values above U+10FFFF become
// U+FFFD.
KD_EXPORT void appendCodePoint(std::string& out, char32_t cp);

// The number of code points, counting every byte that does not continue a
// sequence.
KD_EXPORT std::size_t codePointCount(std::string_view s);

// The prefix of `s` holding at most `count` code points, counted as
// codePointCount does.
std::string_view firstCodePoints(std::string_view s, std::size_t count);

// The length in UTF-16 code units: one per code point, two for those a
// four-byte sequence encodes.
std::size_t utf16Length(std::string_view s);

}  // namespace kd::utf8
