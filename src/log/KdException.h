// Reports of caught exceptions: one log line (also printed) per exception.
//
// An exception is described by a name and a reason. Library code that catches
// a std::exception passes it whole: its name is the one a KdNamedException
// carries, else the exception's C++ type ("std::runtime_error"), and its reason
// is what(). Code that knows a platform's own name for a failure passes name
// and reason directly. Stateless; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

// An exception with a name besides its reason, for failures whose kind callers
// tell apart by name (a port time-out). Plain value; copyable.
class KD_EXPORT KdNamedException : public std::runtime_error {
 public:
  KdNamedException(std::string name, const std::string& reason)
      : std::runtime_error(reason), name_(std::move(name)) {}
  const std::string& name() const { return name_; }

 private:
  std::string name_;
};

class KD_EXPORT KdException {
 public:
  // The name of a time-out while waiting on a port or a child's output.
  static constexpr std::string_view kPortTimeoutName = "NSPortTimeoutException";

  // Logs "Exception in <method>. <name> - <reason>." with appendLogAndPrint and
  // returns that text. `method` may be null ("(null)").
  static std::string logException(std::string_view name, std::string_view reason,
                                  const char* method);
  static std::string logException(const std::exception& e, const char* method);

  // True exactly when the name is "NSPortTimeoutException".
  static bool didTimeout(std::string_view name);
  static bool didTimeout(const std::exception& e);

  // The name logException gives a std::exception.
  static std::string nameOf(const std::exception& e);
};
