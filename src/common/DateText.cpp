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

std::string exactSecondsText(std::chrono::system_clock::time_point t) {
  const auto ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
  long long sec = ns / 1000000000;
  long nsec = static_cast<long>(ns % 1000000000);
  if (nsec < 0) {
    nsec += 1000000000;
    --sec;
  }
  char text[48];
  std::snprintf(text, sizeof text, "%lld.%09ld", sec, nsec);
  return text;
}

std::string dateDescription(DateSeconds t) {
  const CivilTime c = civilFromSeconds(static_cast<long long>(std::floor(t)));
  char buf[160];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u %02u:%02u:%02u +0000", c.year, c.month, c.day,
                c.hour, c.minute, c.second);
  return buf;
}

}  // namespace kd
