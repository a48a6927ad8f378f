// The text form of dates used in logs and messages: "YYYY-MM-DD HH:MM:SS +0000",
// always in UTC. Pure functions; callable from any thread.
#pragma once

#include "../KdExport.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace kd {

// Seconds since 1970-01-01 00:00:00 UTC, with a fraction. Wide enough for the
// distant past, which std::chrono::system_clock cannot hold on this platform.
using DateSeconds = double;

// The distant past (0001-01-01 00:00:00 UTC): earlier than any real date.
constexpr DateSeconds kDistantPast = -62135596800.0;

KD_EXPORT DateSeconds nowSeconds();
KD_EXPORT DateSeconds toSeconds(std::chrono::system_clock::time_point t);
// Whole seconds and nanoseconds since 1970, "1700000000.000005000": the
// exact text of a date, as stored in an attribute.
KD_EXPORT std::string exactSecondsText(std::chrono::system_clock::time_point t);

// A date and time of the proleptic Gregorian calendar.
struct CivilTime {
  long long year;
  unsigned month, day, hour, minute, second;
};

// The civil time of `t` whole seconds since 1970-01-01 00:00:00 (days to date by
// H. Hinnant's algorithm). Plain arithmetic without library calls, so safe in a
// signal handler, and good for any year from 1 on.
constexpr CivilTime civilFromSeconds(long long t) noexcept {
  long long days = t / 86400;
  long long rem = t % 86400;
  if (rem < 0) {
    rem += 86400;
    --days;
  }
  days += 719468;
  const long long era = (days >= 0 ? days : days - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(days - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  CivilTime c{};
  c.day = doy - (153 * mp + 2) / 5 + 1;
  c.month = mp < 10 ? mp + 3 : mp - 9;
  c.year = static_cast<long long>(yoe) + era * 400 + (c.month <= 2 ? 1 : 0);
  c.hour = static_cast<unsigned>(rem / 3600);
  c.minute = static_cast<unsigned>(rem / 60 % 60);
  c.second = static_cast<unsigned>(rem % 60);
  return c;
}

// Days since 1970-01-01 of a date of the proleptic Gregorian calendar: the
// inverse of civilFromSeconds (same algorithm).
constexpr long long daysFromCivil(long long y, unsigned m, unsigned d) noexcept {
  y -= m <= 2;
  const long long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long long>(doe) - 719468;
}

// "YYYY-MM-DD HH:MM:SS +0000" of the whole second at or before `t`.
KD_EXPORT std::string dateDescription(DateSeconds t);
inline std::string dateDescription(std::chrono::system_clock::time_point t) {
  return dateDescription(toSeconds(t));
}

}  // namespace kd
