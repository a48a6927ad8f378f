// The format engine behind kd::format: printf conversions with "%@", checked
// against the argument list at run time so that a format can never read past it.
#include "log/Format.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "common/Utf8.h"

namespace kd {

namespace {

// A stray "%99999999d" must not exhaust memory; real messages never come close.
constexpr int kMaxWidth = 10000;

enum class Length { None, Char, Short, Long, LongLong, Size, PtrDiff, IntMax, LongDouble };

// One parsed printf conversion ("%-8.3lld"): its flags, width, precision,
// length modifier and letter.
struct Conversion {
  std::string flags;  // as written, for the conversions handed to snprintf
  bool leftAlign = false;
  bool widthFromArg = false;
  bool precisionFromArg = false;
  int width = -1;
  int precision = -1;
  Length length = Length::None;
  char letter = 0;  // the conversion character: d, s, f, @, ...
};

template <class T>
T saturatingCast(double d) {
  if (std::isnan(d)) return 0;
  if (d <= static_cast<double>(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
  if (d >= static_cast<double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return static_cast<T>(d);
}

bool isNumeric(const FormatArg& a) {
  return a.kind() == FormatArg::Kind::Signed || a.kind() == FormatArg::Kind::Unsigned ||
         a.kind() == FormatArg::Kind::Double || a.kind() == FormatArg::Kind::Pointer;
}

// Runs snprintf with a format built from the parsed conversion; `conv` is the printf
// conversion with its length modifier ("lld", "llx", "f", ...).
template <class V>
void appendPrintf(std::string& out, const Conversion& conversion, const char* conv, V value) {
  std::string f = "%" + conversion.flags;
  if (conversion.leftAlign && conversion.flags.find('-') == std::string::npos) f += '-';
  f += "*";
  if (conversion.precision >= 0) f += ".*";
  f += conv;
  const int width = conversion.width < 0 ? 0 : conversion.width;
  char small[128];
  int n = conversion.precision >= 0
              ? std::snprintf(small, sizeof small, f.c_str(), width, conversion.precision, value)
              : std::snprintf(small, sizeof small, f.c_str(), width, value);
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof small) {
    out.append(small, static_cast<std::size_t>(n));
    return;
  }
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  n = conversion.precision >= 0
          ? std::snprintf(big.data(), big.size(), f.c_str(), width, conversion.precision, value)
          : std::snprintf(big.data(), big.size(), f.c_str(), width, value);
  if (n > 0) out.append(big.data(), static_cast<std::size_t>(n));
}

// Text conversions pad and cut by code points, so that a name with accents
// lines up like one without.
void appendPadded(std::string& out, const Conversion& conversion, std::string_view text) {
  if (conversion.precision >= 0)
    text = kd::utf8::firstCodePoints(text, static_cast<std::size_t>(conversion.precision));
  const std::size_t len = kd::utf8::codePointCount(text);
  const std::size_t pad = conversion.width > 0 && static_cast<std::size_t>(conversion.width) > len
                              ? conversion.width - len
                              : 0;
  if (!conversion.leftAlign) out.append(pad, ' ');
  out.append(text);
  if (conversion.leftAlign) out.append(pad, ' ');
}

// %c and %C: NUL prints nothing; values past Unicode print U+FFFD.
void appendCodePoint(std::string& out, std::uint64_t cp) {
  if (cp == 0) return;
  kd::utf8::appendCodePoint(out, cp > 0x10FFFF ? char32_t{0xFFFD} : static_cast<char32_t>(cp));
}

std::string hexPointer(std::uint64_t v) {
  char buf[32];
  int n = std::snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
  return std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
}

// The object description "%@" gives an argument.
std::string describe(const FormatArg& a) {
  switch (a.kind()) {
    case FormatArg::Kind::Text:
      return std::string(a.text());
    case FormatArg::Kind::Null:
      return "(null)";
    case FormatArg::Kind::Signed:
      return std::to_string(a.asSigned());
    case FormatArg::Kind::Unsigned:
      return std::to_string(a.asUnsigned());
    case FormatArg::Kind::Pointer:
      return hexPointer(a.asUnsigned());
    case FormatArg::Kind::Double: {
      char buf[64];
      auto r = std::to_chars(buf, buf + sizeof buf, a.asDouble());
      return r.ec == std::errc() ? std::string(buf, r.ptr) : std::string();
    }
  }
  return {};
}

bool isPlain(const Conversion& conversion) {
  return conversion.flags.empty() && conversion.width < 0 && conversion.precision < 0 &&
         !conversion.leftAlign;
}

template <class V>
void appendDecimal(std::string& out, V v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

void appendSignedInteger(std::string& out, const Conversion& conversion, const FormatArg& a) {
  // The argument's own value is printed: a type-checked argument is never
  // silently cut to 32 bits. Only an explicit "hh" or "h" narrows.
  if (a.kind() == FormatArg::Kind::Unsigned || a.kind() == FormatArg::Kind::Pointer) {
    std::uint64_t u = a.asUnsigned();
    if (conversion.length == Length::Char) {
      appendPrintf(out, conversion, "lld", static_cast<long long>(static_cast<std::int8_t>(u)));
    } else if (conversion.length == Length::Short) {
      appendPrintf(out, conversion, "lld", static_cast<long long>(static_cast<std::int16_t>(u)));
    } else if (isPlain(conversion)) {
      appendDecimal(out, u);
    } else {
      appendPrintf(out, conversion, "llu", static_cast<unsigned long long>(u));
    }
    return;
  }
  std::int64_t v = a.asSigned();
  if (conversion.length == Length::Char) v = static_cast<std::int8_t>(v);
  if (conversion.length == Length::Short) v = static_cast<std::int16_t>(v);
  if (isPlain(conversion)) return appendDecimal(out, v);
  appendPrintf(out, conversion, "lld", static_cast<long long>(v));
}

void appendUnsignedInteger(std::string& out, const Conversion& conversion, const FormatArg& a) {
  std::uint64_t v = a.asUnsigned();
  switch (conversion.length) {
    case Length::Char:
      v = static_cast<std::uint8_t>(v);
      break;
    case Length::Short:
      v = static_cast<std::uint16_t>(v);
      break;
    case Length::None:
      // A negative int shows its 32-bit pattern as printf would; a wider
      // value keeps all its bits.
      if (a.kind() == FormatArg::Kind::Signed) {
        std::int64_t s = a.asSigned();
        if (s >= std::numeric_limits<std::int32_t>::min() && s < 0)
          v = static_cast<std::uint32_t>(static_cast<std::int32_t>(s));
      }
      break;
    default:
      break;
  }
  if (conversion.letter == 'u' && isPlain(conversion)) return appendDecimal(out, v);
  char conv[4] = {'l', 'l', conversion.letter, '\0'};
  appendPrintf(out, conversion, conv, static_cast<unsigned long long>(v));
}

void appendConversion(std::string& out, const Conversion& conversion, const FormatArg& a) {
  const char c = conversion.letter;
  switch (c) {
    case 'd':
    case 'i':
    case 'D':
      if (isNumeric(a)) return appendSignedInteger(out, conversion, a);
      return appendPadded(out, conversion, describe(a));
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'U':
    case 'O': {
      if (!isNumeric(a)) return appendPadded(out, conversion, describe(a));
      Conversion s = conversion;
      if (c == 'U') s.letter = 'u';
      if (c == 'O') s.letter = 'o';
      return appendUnsignedInteger(out, s, a);
    }
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A': {
      if (!isNumeric(a)) return appendPadded(out, conversion, describe(a));
      const char conv[2] = {c, '\0'};
      return appendPrintf(out, conversion, conv, a.asDouble());
    }
    case 'c':
    case 'C': {
      if (!isNumeric(a))
        return appendPadded(out, conversion, kd::utf8::firstCodePoints(describe(a), 1));
      std::string ch;
      std::uint64_t cp = a.asUnsigned();
      if (c == 'c' && conversion.length == Length::None) cp = static_cast<unsigned char>(cp);
      appendCodePoint(ch, cp);
      Conversion s = conversion;
      s.precision = -1;
      return appendPadded(out, s, ch);
    }
    case 'p': {
      Conversion s = conversion;
      s.precision = -1;
      return appendPadded(out, s,
                          a.kind() == FormatArg::Kind::Null ? "0x0" : hexPointer(a.asUnsigned()));
    }
    case 's':
    case 'S':
    case '@':
    default:
      if (a.kind() == FormatArg::Kind::Text) return appendPadded(out, conversion, a.text());
      return appendPadded(out, conversion, describe(a));
  }
}

bool isConversion(char c) {
  return std::strchr("diDuoxXUOfFeEgGaAcCsSp@", c) != nullptr && c != '\0';
}

// Reads a decimal number, saturating at kMaxWidth.
int readNumber(std::string_view f, std::size_t& j) {
  int n = 0;
  while (j < f.size() && f[j] >= '0' && f[j] <= '9') {
    n = n * 10 + (f[j] - '0');
    if (n > kMaxWidth) n = kMaxWidth;
    ++j;
  }
  return n;
}

}  // namespace

std::int64_t FormatArg::asSigned() const {
  switch (kind_) {
    case Kind::Signed:
      return i_;
    case Kind::Unsigned:
      return static_cast<std::int64_t>(u_);
    case Kind::Double:
      return saturatingCast<std::int64_t>(d_);
    case Kind::Pointer:
      return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(p_));
    default:
      return 0;
  }
}

std::uint64_t FormatArg::asUnsigned() const {
  switch (kind_) {
    case Kind::Signed:
      return static_cast<std::uint64_t>(i_);
    case Kind::Unsigned:
      return u_;
    case Kind::Double:
      return d_ < 0 ? static_cast<std::uint64_t>(saturatingCast<std::int64_t>(d_))
                    : saturatingCast<std::uint64_t>(d_);
    case Kind::Pointer:
      return reinterpret_cast<std::uintptr_t>(p_);
    default:
      return 0;
  }
}

double FormatArg::asDouble() const {
  switch (kind_) {
    case Kind::Signed:
      return static_cast<double>(i_);
    case Kind::Unsigned:
      return static_cast<double>(u_);
    case Kind::Double:
      return d_;
    case Kind::Pointer:
      return static_cast<double>(reinterpret_cast<std::uintptr_t>(p_));
    default:
      return 0;
  }
}

std::string formatArgs(std::string_view f, std::span<const FormatArg> args) noexcept {
  try {
    std::string out;
    out.reserve(f.size() + 16 * args.size());
    std::size_t next = 0;  // index of the next unused argument
    std::size_t i = 0;
    while (i < f.size()) {
      const std::size_t pct = f.find('%', i);
      if (pct == std::string_view::npos) {
        out.append(f.substr(i));
        break;
      }
      out.append(f.substr(i, pct - i));
      std::size_t j = pct + 1;
      if (j < f.size() && f[j] == '%') {
        out += '%';
        i = j + 1;
        continue;
      }
      Conversion conversion;
      while (j < f.size() && std::strchr("-+ #0'", f[j]) != nullptr) {
        if (f[j] == '-') conversion.leftAlign = true;
        conversion.flags += f[j];
        ++j;
      }
      if (j < f.size() && f[j] == '*') {
        conversion.widthFromArg = true;
        ++j;
      } else if (j < f.size() && f[j] >= '0' && f[j] <= '9') {
        conversion.width = readNumber(f, j);
      }
      if (j < f.size() && f[j] == '.') {
        ++j;
        if (j < f.size() && f[j] == '*') {
          conversion.precisionFromArg = true;
          ++j;
        } else {
          conversion.precision = readNumber(f, j);
        }
      }
      if (j < f.size()) {
        const std::string_view rest = f.substr(j);
        if (rest.starts_with("hh")) {
          conversion.length = Length::Char, j += 2;
        } else if (rest.starts_with("ll")) {
          conversion.length = Length::LongLong, j += 2;
        } else {
          switch (f[j]) {
            case 'h':
              conversion.length = Length::Short, ++j;
              break;
            case 'l':
              conversion.length = Length::Long, ++j;
              break;
            case 'q':
              conversion.length = Length::LongLong, ++j;
              break;
            case 'z':
              conversion.length = Length::Size, ++j;
              break;
            case 't':
              conversion.length = Length::PtrDiff, ++j;
              break;
            case 'j':
              conversion.length = Length::IntMax, ++j;
              break;
            case 'L':
              conversion.length = Length::LongDouble, ++j;
              break;
            default:
              break;
          }
        }
      }
      if (j >= f.size() || !isConversion(f[j])) {
        // Not a conversion: the text stands as written.
        out.append(f.substr(pct, j - pct));
        i = j;
        continue;
      }
      conversion.letter = f[j];
      const std::size_t needed =
          1 + (conversion.widthFromArg ? 1 : 0) + (conversion.precisionFromArg ? 1 : 0);
      if (args.size() - next < needed) {
        out.append(f.substr(pct, j + 1 - pct));
        i = j + 1;
        continue;
      }
      if (conversion.widthFromArg) {
        std::int64_t w = args[next++].asSigned();
        if (w < 0) {
          conversion.leftAlign = true;
          w = w == std::numeric_limits<std::int64_t>::min() ? kMaxWidth : -w;
        }
        conversion.width = static_cast<int>(w > kMaxWidth ? kMaxWidth : w);
      }
      if (conversion.precisionFromArg) {
        std::int64_t p = args[next++].asSigned();
        conversion.precision = p < 0 ? -1 : static_cast<int>(p > kMaxWidth ? kMaxWidth : p);
      }
      appendConversion(out, conversion, args[next++]);
      i = j + 1;
    }
    return out;
  } catch (...) {
    return std::string();
  }
}

}  // namespace kd
