// The log when its folder fails under it mid-run: a file system that fills
// up, and a folder that turns read-only before a rotation. The program goes
// on, says so on standard output, never hangs, and writes again once it can.
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "LogFixture.h"

namespace kd::test {
namespace {

class LogFaults : public LogTest {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs";
    LogTest::SetUp();
    std::filesystem::create_directories(folder());
  }
  void TearDown() override {
    for (int i = 0; i < mounts_; ++i) ::umount2(folder().c_str(), MNT_DETACH);
    LogTest::TearDown();
  }
  // A tmpfs over the log folder, on top of what is there.
  bool mountOver(const std::string& options) {
    if (::mount("kdlog-test", folder().c_str(), "tmpfs", 0, options.c_str()) != 0) return false;
    ++mounts_;
    return true;
  }
  static std::string stdoutOf(void (*work)()) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
  }
  int mounts_ = 0;
};

TEST_F(LogFaults, AFullFolderLosesLinesLoudlyAndTheLogResumesWhenThereIsRoom) {
  ASSERT_TRUE(mountOver("size=64k,mode=0700")) << "cannot mount a tmpfs here";
  KdLog::createNewLog();
  // About 200 KB of lines into 64 KB.
  const std::string out = stdoutOf([] {
    for (int i = 0; i < 2000; ++i) KdLog::appendLog("line %li of a clip list that fills up", i);
    KdLog::finishWriting();
  });
  EXPECT_NE(out.find("Exception writing to log: No space left on device"), std::string::npos)
      << out;
  const Lines before = messages(logPath(1));
  ASSERT_GT(before.size(), withHeader().size());
  EXPECT_LT(before.size(), 2000u);

  // Room again: the next lines are written, on a line of their own even when
  // the disk filled up in the middle of a line.
  ASSERT_EQ(::mount(nullptr, folder().c_str(), nullptr, MS_REMOUNT, "size=1m"), 0);
  KdLog::appendLog("after the disk had room again");
  KdLog::finishWriting();
  const Lines after = messages(logPath(1));
  ASSERT_FALSE(after.empty());
  EXPECT_EQ(after.back(), "after the disk had room again");
}

TEST_F(LogFaults, AFolderTurnedReadOnlyBeforeARotationKeepsTheProgramGoing) {
  KdLog::createNewLog();
  KdLog::appendLog("before");
  KdLog::finishWriting();
  // The folder is now a read-only file system (the open log file lies
  // beneath it): the rotation cannot create the next log.
  ASSERT_EQ(::mount("kdlog-test", folder().c_str(), "tmpfs", MS_RDONLY, "size=64k"), 0)
      << "cannot mount a tmpfs here";
  ++mounts_;
  const std::string out = stdoutOf([] {
    KdLog::createNewLog();
    KdLog::appendLog("while read-only");
    KdLog::finishWriting();
  });
  EXPECT_NE(out.find("Unable to create log file " + logPath(1) + " - "), std::string::npos) << out;
  EXPECT_NE(out.find("Unable to log the following information: while read-only"), std::string::npos)
      << out;
  // Writable again: a new log starts and takes lines.
  ::umount2(folder().c_str(), MNT_DETACH);
  --mounts_;
  KdLog::createNewLog();
  KdLog::appendLog("writable again");
  KdLog::finishWriting();
  const Lines now = messages(logPath(1));
  ASSERT_FALSE(now.empty());
  EXPECT_EQ(now.back(), "writable again");
  EXPECT_EQ(messages(logPath(2)), withHeader({"before"}));
}

}  // namespace
}  // namespace kd::test
