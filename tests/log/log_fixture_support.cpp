#include <regex>
#include <sstream>

#include "LogFixture.h"

namespace kd::test {

std::vector<std::string> LogTest::messages(const std::string& path) {
  static const std::regex line(R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000) - (.*))");
  std::vector<std::string> out;
  std::istringstream in(readFile(path));
  for (std::string l; std::getline(in, l);) {
    std::smatch m;
    if (!std::regex_match(l, m, line)) {
      out.push_back("<no date> " + l);
      continue;
    }
    std::string text = m[2].str();
    static const std::regex started(R"(Log started: \d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000)");
    out.push_back(std::regex_match(text, started) ? "Log started: <date>" : text);
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
