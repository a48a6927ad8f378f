// The text form of dates used in logs and messages: "YYYY-MM-DD HH:MM:SS +0000",
// always in UTC. Pure functions; callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace kd {

// Seconds since 1970-01-01 00:00:00 UTC, with a fraction. Wide enough for the
// distant past, which std::chrono::system_clock cannot hold on this platform.
using DateSeconds = double;

// The distant past (0001-01-01 00:00:00 UTC): earlier than any real date.
constexpr DateSeconds kDistantPast = -62135596800.0;

DateSeconds nowSeconds();
DateSeconds toSeconds(std::chrono::system_clock::time_point t);

// "YYYY-MM-DD HH:MM:SS +0000" of the whole second at or before `t`.
std::string dateDescription(DateSeconds t);
inline std::string dateDescription(std::chrono::system_clock::time_point t) {
  return dateDescription(toSeconds(t));
}

}  // namespace kd
