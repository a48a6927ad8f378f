#include "common/DateText.h"

#include <gtest/gtest.h>

TEST(DateText, DescribesDatesInUtc) {
  struct Case {
    kd::DateSeconds t;
    const char* text;
  } cases[] = {
      {0, "1970-01-01 00:00:00 +0000"},
      {1700000000.75, "2023-11-14 22:13:20 +0000"},
      {951782400, "2000-02-29 00:00:00 +0000"},
      {-1, "1969-12-31 23:59:59 +0000"},
      {-0.5, "1969-12-31 23:59:59 +0000"},
      {kd::kDistantPast, "0001-01-01 00:00:00 +0000"},
      {253402300799, "9999-12-31 23:59:59 +0000"},
  };
  for (const auto& c : cases) EXPECT_EQ(kd::dateDescription(c.t), c.text) << c.t;
}
