// A log whose folders lie below a temporary folder: a macOS-answering platform
// with the users' homes in the temporary folder, and a log reset before and
// after each test. The application's name is "Test" unless a test changes it.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "log/KdLog.h"
#include "log/KdLogTesting.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

namespace kd::test {

using Lines = std::vector<std::string>;

// The fake with fixed bundle and machine answers, so that header lines can be
// compared whole.
class LogPlatform : public FakeMacPlatform {
 public:
  BundleInfo bundle{"/Applications/Test.app/Contents/MacOS/Test", "1.2.3", "Test", std::nullopt};
  BundleInfo mainBundle() override { return bundle; }
  long processorCount() override { return 8; }
  std::uint64_t physicalMemory() override { return 17179869184; }  // 16 GB
};

class LogTest : public ::testing::Test {
 protected:
  LogTest() { platform_.setHomesRoot(tmp_ / "Users"); }
  void SetUp() override { restart(); }
  void TearDown() override { KdLogTestAccess::reset(); }
  // Forgets every state of the log, as a new process would start.
  static void restart() {
    KdLogTestAccess::reset();
    KdLog::sharedController().setAppName("Test");
  }

  std::string folder() const { return tmp_ / "Users/bob/Library/Logs/Quillfen"; }
  std::string logPath(int i) const { return folder() + "/Test." + std::to_string(i) + ".log"; }

  // The messages of a log file without their date prefixes; the date in the
  // first header line reads "<date>".
  static Lines messages(const std::string& path) {
    static const std::string date = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d \+0000)";
    static const std::regex dated(date + " - "), started("^Log started: " + date + "$");
    Lines out;
    std::istringstream in(readFile(path));
    for (std::string l; std::getline(in, l);) {
      const bool hasDate = l.size() >= 28 && std::regex_match(l.substr(0, 28), dated);
      out.push_back(hasDate ? std::regex_replace(l.substr(28), started, "Log started: <date>")
                            : "<no date> " + l);
    }
    return out;
  }

  // The header a new log of LogPlatform begins with, then `more`.
  static Lines withHeader(const Lines& more = {}) {
    Lines lines = {"Log started: <date>", "Version: 1.2.3",
                   "Path: /Applications/Test.app/Contents/MacOS/Test",
                   "System: macOS Version 14.5 (Build 23F79), 8 CPU(s), 16.00 GB RAM",
                   "Running in 64-bit mode"};
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
  }

  TempDir tmp_;
  LogPlatform platform_;
  ScopedPlatform scoped_{platform_};
};

}  // namespace kd::test
