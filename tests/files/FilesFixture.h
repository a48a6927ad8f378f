// Fixture for the file utilities: a macOS-answering platform whose log lies in
// a temporary folder, a fresh log per test, and a scratch folder.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <string>

#include "common/Path.h"
#include "files/KdFileManager.h"
#include "log/LogFixture.h"

namespace kd::test {

class FilesTest : public LogTest {
 protected:
  void SetUp() override {
    LogTest::SetUp();
    KdLog::createNewLog();
  }
  // The log's messages after its header.
  Lines logged() {
    KdLog::finishWriting();
    Lines all = messages(logPath(1));
    const std::size_t header = withHeader().size();
    return all.size() > header ? Lines(all.begin() + header, all.end()) : Lines();
  }
  // A path below the scratch folder (the folder itself for "").
  std::string work(const std::string& relative = "") const {
    return path::append(dir_.path(), relative);
  }
  // The user's trash.
  std::string trash() const { return tmp_ / "Users/bob/Library/Trash"; }

  TempDir dir_;
};

inline KdFileManager::Date secondsAgo(double seconds) {
  return std::chrono::time_point_cast<KdFileManager::Date::duration>(
      std::chrono::system_clock::now() - std::chrono::duration<double>(seconds));
}

}  // namespace kd::test
