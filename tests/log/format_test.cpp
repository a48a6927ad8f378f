#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>

#include "log/Format.h"
#include "log/KdLog.h"

namespace {

struct Row {
  const char* what;
  std::string got;
  std::string want;
};

TEST(Format, Conversions) {
  const std::optional<std::string> none;
  const Row rows[] = {
      {"plain", kd::format("no conversions"), "no conversions"},
      {"int", kd::format("%d|%i", 42, -7), "42|-7"},
      {"width and flags", kd::format("%5d|%-5d|%05d|%+d|% d", 42, 42, 42, 5, 5),
       "   42|42   |00042|+5| 5"},
      {"precision on int", kd::format("%.3d", 7), "007"},
      {"negative int as unsigned", kd::format("%u", -1), "4294967295"},
      {"negative long as unsigned", kd::format("%lu", -1L), "18446744073709551615"},
      {"hex and octal", kd::format("%x %X %#x %o", 255, 255, 255, 8), "ff FF 0xff 10"},
      {"hh and h narrow", kd::format("%hhd %hd %hhu", 300, 70000, -1), "44 4464 255"},
      {"int64 minimum", kd::format("%lld", INT64_MIN), "-9223372036854775808"},
      {"size_t", kd::format("%zu", std::size_t{3000000000u}), "3000000000"},
      {"wide value never cut", kd::format("%d", std::uint64_t{5000000000u}), "5000000000"},
      {"q j t modifiers", kd::format("%qd %jd %td", 1, 2, 3), "1 2 3"},
      {"fixed", kd::format("%f|%0.2f|%8.3f", 1.5, 2.5, 3.14159), "1.500000|2.50|   3.142"},
      {"exponent and general", kd::format("%e|%g|%G", 12345.678, 0.0001, 1e-10),
       "1.234568e+04|0.0001|1E-10"},
      {"hex float and L", kd::format("%a|%Lf", 1.0, 1.0), "0x1p+0|1.000000"},
      {"int to float conversion", kd::format("%f", 3), "3.000000"},
      {"percent after number", kd::format("%5.1f%%", 99.94), " 99.9%"},
      {"strings", kd::format("%s|%@|%@", "abc", std::string("def"), std::string_view("gh")),
       "abc|def|gh"},
      {"absent values", kd::format("%@|%s|%@", none, static_cast<const char*>(nullptr), nullptr),
       "(null)|(null)|(null)"},
      {"string padding", kd::format("%5s|%-5s|", "ab", "ab"), "   ab|ab   |"},
      {"precision counts characters", kd::format("%.2s|%4@|", "h\u00e9llo", "\u00e9"),
       "h\u00e9|   \u00e9|"},
      {"objects", kd::format("%@ %@ %@", 42, 1.5, true), "42 1.5 1"},
      {"characters", kd::format("%c%c|%C", 'o', 'k', 0xE9), "ok|\u00e9"},
      {"pointers", kd::format("%p|%p", reinterpret_cast<const void*>(0x1234), nullptr),
       "0x1234|0x0"},
      {"star width", kd::format("%*d|%-*d|%*d|", 5, 42, 4, 7, -4, 7), "   42|7   |7   |"},
      {"star precision", kd::format("%.*f|%.*s", 2, 3.14159, -1, "abc"), "3.14|abc"},
      {"escaped percent", kd::format("%%|100%|%"), "%|100%|%"},
      {"missing argument prints literally", kd::format("%d and %d", 1), "1 and %d"},
      {"missing star argument", kd::format("%*d", 5), "%*d"},
      {"unknown conversions", kd::format("%k|%n %d", 5), "%k|%n 5"},
      {"mismatched type shows the value", kd::format("%d|%f", "text", none), "text|(null)"},
      {"extra arguments ignored", kd::format("%d", 1, 2), "1"},
      {"second pass of a formatted line", kd::format("50% done %@"), "50% done %@"},
  };
  for (const Row& r : rows) EXPECT_EQ(r.got, r.want) << r.what;
}

TEST(Format, HugeWidthIsBounded) {
  EXPECT_EQ(kd::format("%999999999d", 1).size(), 10000u);
  EXPECT_EQ(kd::format("%.999999999f", 1.0).size(), 10002u);
}

TEST(EscapeTextForLogging, Table) {
  const std::pair<const char*, const char*> rows[] = {
      {"no percent sign", "no percent sign"},
      {"Rate %.2f", "Rate %%.2f"},
      {"% d", "%% d"},
      {"%-8s|%+d|%!|%,|%;|%:", "%%-8s|%%+d|%%!|%%,|%%;|%%:"},
      {"50%% done", "50%% done"},
      {"%%.2f", "%%.2f"},
      {"%%%d", "%%d"},
      {"100%.", "100%%."},
      {"%0.2f %@ %d %5s", "%0.2f %@ %d %5s"},
  };
  for (const auto& [in, want] : rows) EXPECT_EQ(KdLog::escapeTextForLogging(in), want) << in;
}

}  // namespace
