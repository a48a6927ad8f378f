#include <sstream>

#include "LogFixture.h"

namespace kd::test {

namespace {

// "YYYY-MM-DD HH:MM:SS +0000" at the start of `s`.
bool startsWithDate(std::string_view s) {
  static constexpr std::string_view shape = "dddd-dd-dd dd:dd:dd +0000";
  if (s.size() < shape.size()) return false;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (shape[i] == 'd' ? (s[i] < '0' || s[i] > '9') : s[i] != shape[i]) return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> LogTest::messages(const std::string& path) {
  std::vector<std::string> out;
  std::istringstream in(readFile(path));
  for (std::string l; std::getline(in, l);) {
    if (!startsWithDate(l) || l.compare(25, 3, " - ") != 0) {
      out.push_back("<no date> " + l);
      continue;
    }
    std::string text = l.substr(28);
    constexpr std::string_view started = "Log started: ";
    if (text.size() == started.size() + 25 && text.starts_with(started) &&
        startsWithDate(std::string_view(text).substr(started.size()))) {
      text = "Log started: <date>";
    }
    out.push_back(text);
  }
  return out;
}

std::vector<std::string> expectedHeader() {
  return {
      "Log started: <date>",
      "Version: 1.2.3",
      "Path: /Applications/Test.app/Contents/MacOS/Test",
      "System: macOS Version 14.5 (Build 23F79), 8 CPU(s), 16.00 GB RAM",
      "Running in 64-bit mode",
  };
}

}  // namespace kd::test
