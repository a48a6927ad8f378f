// One error type inside the library: a system error number and what it
// concerns, and Result<T>, a value or such an error. The public calls map a
// Result to their fixed answers (booleans, empty results, messages) at the
// edge; nothing here throws.
//
// Plain values: copy and move them freely, from any thread.
#pragma once

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace kd {

// Why something failed: `code` is the system's error number (0 when the
// failure has none and `context` alone describes it); `context` says what it
// concerns (a path, a step) or, without a code, what went wrong.
struct Error {
  int code = 0;
  std::string context;

  Error() = default;
  explicit Error(int errorCode, std::string about = {})
      : code(errorCode), context(std::move(about)) {}

  // The failure as the library words it: the system's text for the code,
  // after the context and ": " when there is one; the context alone without a
  // code.
  std::string message() const {
    if (code == 0) return context;
    const std::string text = std::strerror(code);
    return context.empty() ? text : context + ": " + text;
  }

  // The same failure, said of something larger: "<outer>: <context>".
  Error within(const std::string& outer) const {
    return Error{code, context.empty() ? outer : outer + ": " + context};
  }

  // A failure described in words only.
  static Error described(std::string text) { return Error{0, std::move(text)}; }
  // The system's error of the moment (errno; EIO when errno holds none).
  static Error fromErrno(std::string context = {}) {
    const int code = errno;
    return Error{code != 0 ? code : EIO, std::move(context)};
  }
};

// Whether an error number means "no rights": a permission error or a locked item.
inline bool isRightsError(int code) {
  return code == EACCES || code == EPERM;
}

// A value of T or the Error that kept it from being made. Asking a failed
// Result for its value, or a good one for its error, is undefined, as
// dereferencing an empty std::optional is: look at ok() first. `E` is Error
// unless a call's callers branch on more than it holds (a whole-file read
// tells a missing file from one it refuses).
template <class T, class E = Error>
class [[nodiscard]] Result {
 public:
  Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
  Result(E error) : state_(std::in_place_index<1>, std::move(error)) {}

  bool ok() const { return state_.index() == 0; }
  explicit operator bool() const { return ok(); }

  T& value() & { return *std::get_if<0>(&state_); }
  const T& value() const& { return *std::get_if<0>(&state_); }
  T&& value() && { return std::move(*std::get_if<0>(&state_)); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }

  const E& error() const { return *std::get_if<1>(&state_); }

  // The value, or none: for callers whose own answer is a value or nothing.
  std::optional<T> toOptional() && {
    if (!ok()) return std::nullopt;
    return std::move(value());
  }

 private:
  std::variant<T, E> state_;
};

// Success, or the Error that kept the work from being done.
template <class E>
class [[nodiscard]] Result<void, E> {
 public:
  Result() = default;
  Result(E error) : error_(std::move(error)) {}

  bool ok() const { return !error_; }
  explicit operator bool() const { return ok(); }
  const E& error() const { return *error_; }

 private:
  std::optional<E> error_;
};

// Success, for the Result<void> of a function whose work is done.
inline Result<void> success() {
  return {};
}

// Result<void> from a call that answers 0 or an error number.
inline Result<void> fromCode(int code, std::string context = {}) {
  if (code == 0) return {};
  return Error{code, std::move(context)};
}

}  // namespace kd
