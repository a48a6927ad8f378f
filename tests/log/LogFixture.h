// A log whose folders lie below a temporary folder: a macOS-answering platform
// with the users' homes in the temporary folder, and a log reset before and
// after each test. The application's name is "Test" unless a test changes it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log/KdLog.h"
#include "log/KdLogTesting.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

namespace kd::test {

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
  void SetUp() override {
    KdLogTestAccess::reset();
    KdLog::sharedController().setAppName("Test");
  }
  void TearDown() override { KdLogTestAccess::reset(); }

  std::string folder() const { return tmp_ / "Users/bob/Library/Logs/Quillfen"; }
  std::string logPath(int i, const std::string& name = "Test") const {
    return folder() + "/" + name + "." + std::to_string(i) + ".log";
  }
  std::string globalPrefsPath() const {
    return tmp_ / "Users/bob/Library/Preferences/com.quillfen.global.plist";
  }
  // The messages of a log file without their date prefixes.
  static std::vector<std::string> messages(const std::string& path);

  TempDir tmp_;
  LogPlatform platform_;
  ScopedPlatform scoped_{platform_};
};

// The header a new log of LogPlatform begins with.
std::vector<std::string> expectedHeader();

}  // namespace kd::test
