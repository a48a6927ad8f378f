#include "common/DateText.h"

#include <cmath>
#include <cstdio>

namespace kd {

DateSeconds nowSeconds() {
  return toSeconds(std::chrono::system_clock::now());
}

DateSeconds toSeconds(std::chrono::system_clock::time_point t) {
  return std::chrono::duration<double>(t.time_since_epoch()).count();
}

std::string dateDescription(DateSeconds t) {
  // Civil date from days since 1970 (proleptic Gregorian calendar), so that
  // any year from 1 on prints without the C library's time_t limits.
  auto whole = static_cast<std::int64_t>(std::floor(t));
  std::int64_t days = whole >= 0 ? whole / 86400 : -((-whole + 86399) / 86400);
  std::int64_t secs = whole - days * 86400;
  std::int64_t z = days + 719468;
  std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  std::int64_t doe = z - era * 146097;
  std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  std::int64_t y = yoe + era * 400;
  std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  std::int64_t mp = (5 * doy + 2) / 153;
  std::int64_t d = doy - (153 * mp + 2) / 5 + 1;
  std::int64_t m = mp < 10 ? mp + 3 : mp - 9;
  if (m <= 2) ++y;
  char buf[160];
  std::snprintf(buf, sizeof buf, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld +0000",
                static_cast<long long>(y), static_cast<long long>(m), static_cast<long long>(d),
                static_cast<long long>(secs / 3600), static_cast<long long>(secs / 60 % 60),
                static_cast<long long>(secs % 60));
  return buf;
}

}  // namespace kd
