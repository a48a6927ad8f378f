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

struct Spec {
  std::string flags;  // as written, for the conversions handed to snprintf
  bool leftAlign = false;
  bool widthFromArg = false;
  bool precisionFromArg = false;
  int width = -1;
  int precision = -1;
  Length length = Length::None;
  char conversion = 0;
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
void appendPrintf(std::string& out, const Spec& spec, const char* conv, V value) {
  std::string f = "%" + spec.flags;
  if (spec.leftAlign && spec.flags.find('-') == std::string::npos) f += '-';
  f += "*";
  if (spec.precision >= 0) f += ".*";
  f += conv;
  const int width = spec.width < 0 ? 0 : spec.width;
  char small[128];
  int n = spec.precision >= 0
              ? std::snprintf(small, sizeof small, f.c_str(), width, spec.precision, value)
              : std::snprintf(small, sizeof small, f.c_str(), width, value);
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof small) {
    out.append(small, static_cast<std::size_t>(n));
    return;
  }
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  n = spec.precision >= 0
          ? std::snprintf(big.data(), big.size(), f.c_str(), width, spec.precision, value)
          : std::snprintf(big.data(), big.size(), f.c_str(), width, value);
  if (n > 0) out.append(big.data(), static_cast<std::size_t>(n));
}

// The prefix of `s` holding at most `count` code points.
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

// Text conversions pad and cut by code points, so that a name with accents
// lines up like one without.
void appendPadded(std::string& out, const Spec& spec, std::string_view text) {
  if (spec.precision >= 0) text = firstCodePoints(text, static_cast<std::size_t>(spec.precision));
  const std::size_t len = kd::utf8::codePointCount(text);
  const std::size_t pad =
      spec.width > 0 && static_cast<std::size_t>(spec.width) > len ? spec.width - len : 0;
  if (!spec.leftAlign) out.append(pad, ' ');
  out.append(text);
  if (spec.leftAlign) out.append(pad, ' ');
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

bool isPlain(const Spec& spec) {
  return spec.flags.empty() && spec.width < 0 && spec.precision < 0 && !spec.leftAlign;
}

template <class V>
void appendDecimal(std::string& out, V v) {
  char buf[24];
  auto r = std::to_chars(buf, buf + sizeof buf, v);
  out.append(buf, r.ptr);
}

void appendSignedInteger(std::string& out, const Spec& spec, const FormatArg& a) {
  // The argument's own value is printed: a type-checked argument is never
  // silently cut to 32 bits. Only an explicit "hh" or "h" narrows.
  if (a.kind() == FormatArg::Kind::Unsigned || a.kind() == FormatArg::Kind::Pointer) {
    std::uint64_t u = a.asUnsigned();
    if (spec.length == Length::Char) {
      appendPrintf(out, spec, "lld", static_cast<long long>(static_cast<std::int8_t>(u)));
    } else if (spec.length == Length::Short) {
      appendPrintf(out, spec, "lld", static_cast<long long>(static_cast<std::int16_t>(u)));
    } else if (isPlain(spec)) {
      appendDecimal(out, u);
    } else {
      appendPrintf(out, spec, "llu", static_cast<unsigned long long>(u));
    }
    return;
  }
  std::int64_t v = a.asSigned();
  if (spec.length == Length::Char) v = static_cast<std::int8_t>(v);
  if (spec.length == Length::Short) v = static_cast<std::int16_t>(v);
  if (isPlain(spec)) return appendDecimal(out, v);
  appendPrintf(out, spec, "lld", static_cast<long long>(v));
}

void appendUnsignedInteger(std::string& out, const Spec& spec, const FormatArg& a) {
  std::uint64_t v = a.asUnsigned();
  switch (spec.length) {
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
  if (spec.conversion == 'u' && isPlain(spec)) return appendDecimal(out, v);
  char conv[4] = {'l', 'l', spec.conversion, '\0'};
  appendPrintf(out, spec, conv, static_cast<unsigned long long>(v));
}

void appendConversion(std::string& out, const Spec& spec, const FormatArg& a) {
  const char c = spec.conversion;
  switch (c) {
    case 'd':
    case 'i':
    case 'D':
      if (isNumeric(a)) return appendSignedInteger(out, spec, a);
      return appendPadded(out, spec, describe(a));
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'U':
    case 'O': {
      if (!isNumeric(a)) return appendPadded(out, spec, describe(a));
      Spec s = spec;
      if (c == 'U') s.conversion = 'u';
      if (c == 'O') s.conversion = 'o';
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
      if (!isNumeric(a)) return appendPadded(out, spec, describe(a));
      const char conv[2] = {c, '\0'};
      return appendPrintf(out, spec, conv, a.asDouble());
    }
    case 'c':
    case 'C': {
      if (!isNumeric(a)) return appendPadded(out, spec, firstCodePoints(describe(a), 1));
      std::string ch;
      std::uint64_t cp = a.asUnsigned();
      if (c == 'c' && spec.length == Length::None) cp = static_cast<unsigned char>(cp);
      appendCodePoint(ch, cp);
      Spec s = spec;
      s.precision = -1;
      return appendPadded(out, s, ch);
    }
    case 'p': {
      Spec s = spec;
      s.precision = -1;
      return appendPadded(out, s,
                          a.kind() == FormatArg::Kind::Null ? "0x0" : hexPointer(a.asUnsigned()));
    }
    case 's':
    case 'S':
    case '@':
    default:
      if (a.kind() == FormatArg::Kind::Text) return appendPadded(out, spec, a.text());
      return appendPadded(out, spec, describe(a));
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
      Spec spec;
      while (j < f.size() && std::strchr("-+ #0'", f[j]) != nullptr) {
        if (f[j] == '-') spec.leftAlign = true;
        spec.flags += f[j];
        ++j;
      }
      if (j < f.size() && f[j] == '*') {
        spec.widthFromArg = true;
        ++j;
      } else if (j < f.size() && f[j] >= '0' && f[j] <= '9') {
        spec.width = readNumber(f, j);
      }
      if (j < f.size() && f[j] == '.') {
        ++j;
        if (j < f.size() && f[j] == '*') {
          spec.precisionFromArg = true;
          ++j;
        } else {
          spec.precision = readNumber(f, j);
        }
      }
      if (j < f.size()) {
        const std::string_view rest = f.substr(j);
        if (rest.starts_with("hh")) {
          spec.length = Length::Char, j += 2;
        } else if (rest.starts_with("ll")) {
          spec.length = Length::LongLong, j += 2;
        } else {
          switch (f[j]) {
            case 'h':
              spec.length = Length::Short, ++j;
              break;
            case 'l':
              spec.length = Length::Long, ++j;
              break;
            case 'q':
              spec.length = Length::LongLong, ++j;
              break;
            case 'z':
              spec.length = Length::Size, ++j;
              break;
            case 't':
              spec.length = Length::PtrDiff, ++j;
              break;
            case 'j':
              spec.length = Length::IntMax, ++j;
              break;
            case 'L':
              spec.length = Length::LongDouble, ++j;
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
      spec.conversion = f[j];
      const std::size_t needed = 1 + (spec.widthFromArg ? 1 : 0) + (spec.precisionFromArg ? 1 : 0);
      if (args.size() - next < needed) {
        out.append(f.substr(pct, j + 1 - pct));
        i = j + 1;
        continue;
      }
      if (spec.widthFromArg) {
        std::int64_t w = args[next++].asSigned();
        if (w < 0) {
          spec.leftAlign = true;
          w = w == std::numeric_limits<std::int64_t>::min() ? kMaxWidth : -w;
        }
        spec.width = static_cast<int>(w > kMaxWidth ? kMaxWidth : w);
      }
      if (spec.precisionFromArg) {
        std::int64_t p = args[next++].asSigned();
        spec.precision = p < 0 ? -1 : static_cast<int>(p > kMaxWidth ? kMaxWidth : p);
      }
      appendConversion(out, spec, args[next++]);
      i = j + 1;
    }
    return out;
  } catch (...) {
    return std::string();
  }
}

}  // namespace kd
