// The system's message formats: printf conversions plus "%@" for strings and
// objects.
//
// Arguments are converted to `kd::FormatArg` at the call site, so only types the
// engine knows compile. A conversion with no argument left is printed
// literally. Pure functions; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace kd {

// One formatting argument: an integer, a floating-point number, a text, a
// pointer, or nothing (an absent optional, shown by "%@" as "(null)").
class KD_EXPORT FormatArg {
 public:
  enum class Kind { Signed, Unsigned, Double, Text, Pointer, Null };

  template <class T>
  requires(std::is_integral_v<T>&& std::is_signed_v<T>) FormatArg(T v)
      : kind_(Kind::Signed), i_(v) {}
  template <class T>
  requires(std::is_integral_v<T>&& std::is_unsigned_v<T> && !std::is_same_v<T, bool>) FormatArg(T v)
      : kind_(Kind::Unsigned), u_(v) {}
  FormatArg(bool v) : kind_(Kind::Signed), i_(v ? 1 : 0) {}
  FormatArg(double v) : kind_(Kind::Double), d_(v) {}
  FormatArg(float v) : kind_(Kind::Double), d_(v) {}
  FormatArg(const char* s) : kind_(s ? Kind::Text : Kind::Null), text_(s ? s : "") {}
  FormatArg(std::string_view s) : kind_(Kind::Text), text_(s) {}
  FormatArg(const std::string& s) : kind_(Kind::Text), text_(s) {}
  FormatArg(const std::optional<std::string>& s)
      : kind_(s ? Kind::Text : Kind::Null), text_(s ? std::string_view(*s) : std::string_view()) {}
  FormatArg(const void* p) : kind_(Kind::Pointer), p_(p) {}
  FormatArg(std::nullptr_t) : kind_(Kind::Null) {}

  Kind kind() const { return kind_; }
  std::int64_t asSigned() const;
  std::uint64_t asUnsigned() const;
  double asDouble() const;
  std::string_view text() const { return text_; }
  const void* pointer() const { return p_; }

 private:
  Kind kind_;
  std::int64_t i_ = 0;
  std::uint64_t u_ = 0;
  double d_ = 0;
  std::string_view text_;
  const void* p_ = nullptr;
};

// Formats `format` with `args`. Never throws.
KD_EXPORT std::string formatArgs(std::string_view format, std::span<const FormatArg> args) noexcept;

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
  const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
  return formatArgs(fmt, std::span<const FormatArg>(list.data(), list.size()));
}

}  // namespace kd
