#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <optional>
#include <string>

#include "log/Format.h"
#include "log/KdLog.h"

namespace {

TEST(Format, Conversions) {
  const std::optional<std::string> none;
  const std::pair<std::string, std::string> rows[] = {
      // got, want
      {kd::format("%d|%i", 42, -7), "42|-7"},
      {kd::format("%5d|%-5d|%05d|%+d|% d|%.3d", 42, 42, 42, 5, 5, 7),
       "   42|42   |00042|+5| 5|007"},
      {kd::format("%u|%lu", -1, -1L), "4294967295|18446744073709551615"},
      {kd::format("%x %X %#x %o", 255, 255, 255, 8), "ff FF 0xff 10"},
      {kd::format("%lld|%zu", INT64_MIN, std::size_t{3000000000u}),
       "-9223372036854775808|3000000000"},
      // A value wider than the conversion is never cut.
      {kd::format("%d", std::uint64_t{5000000000u}), "5000000000"},
      {kd::format("%f|%0.2f|%8.3f|%f", 1.5, 2.5, 3.14159, 3), "1.500000|2.50|   3.142|3.000000"},
      {kd::format("%e|%g|%G", 12345.678, 0.0001, 1e-10), "1.234568e+04|0.0001|1E-10"},
      {kd::format("%5.1f%%", 99.94), " 99.9%"},
      {kd::format("%s|%@|%@", "abc", std::string("def"), std::string_view("gh")), "abc|def|gh"},
      {kd::format("%5s|%-5s|", "ab", "ab"), "   ab|ab   |"},
      {kd::format("%@|%s|%@", none, static_cast<const char*>(nullptr), nullptr),
       "(null)|(null)|(null)"},
      // Precision and width count characters, not bytes.
      {kd::format("%.2s|%4@|", "h\u00e9llo", "\u00e9"), "h\u00e9|   \u00e9|"},
      {kd::format("%@ %@ %@", 42, 1.5, true), "42 1.5 1"},
      {kd::format("%c%c|%C", 'o', 'k', 0xE9), "ok|\u00e9"},
      {kd::format("%p|%p", reinterpret_cast<const void*>(0x1234), nullptr), "0x1234|0x0"},
      {kd::format("%*d|%-*d|%*d|%.*f|%.*s", 5, 42, 4, 7, -4, 7, 2, 3.14159, -1, "abc"),
       "   42|7   |7   |3.14|abc"},
      {kd::format("%%|100%|%"), "%|100%|%"},
      // What has no argument, or is unknown, prints literally.
      {kd::format("%d and %d", 1), "1 and %d"},
      {kd::format("%*d", 5), "%*d"},
      {kd::format("%k|%n %d", 5), "%k|%n 5"},
      {kd::format("%d|%f", "text", none), "text|(null)"},
      {kd::format("%d", 1, 2), "1"},
      {kd::format("50% done %@"), "50% done %@"},
      // Huge widths and precisions are bounded.
      {std::to_string(kd::format("%999999999d", 1).size()), "10000"},
      {std::to_string(kd::format("%.999999999f", 1.0).size()), "10002"},
  };
  for (const auto& [got, want] : rows) EXPECT_EQ(got, want);
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
