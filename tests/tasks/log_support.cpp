#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "log/KdLog.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"
#include "tasks/TaskTestSupport.h"

namespace kd::test {
namespace {

// The fake platform is never freed: the log writer and background reapers
// may still be about while the program ends.
class LogEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    home_ = new TempDir();
    auto* fake = new FakeMacPlatform();
    fake->setUid(501);
    fake->setHomesRoot(home_->mkdir("Users"));
    setPlatformForTesting(fake);
    KdLog::createNewLog(std::string("kd_tasks_tests"));
  }
  void TearDown() override {
    KdLog::finishWriting();
    delete home_;
    home_ = nullptr;
  }

 private:
  TempDir* home_ = nullptr;
};

[[maybe_unused]] ::testing::Environment* const gLogEnvironment =
    ::testing::AddGlobalTestEnvironment(new LogEnvironment);

}  // namespace

std::string logText() {
  KdLog::finishWriting();
  std::vector<std::string> logs = KdLog::availableLogs();
  return logs.empty() ? std::string() : readFile(logs.front());
}

std::vector<int> openFds() {
  std::vector<int> fds;
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return fds;
  while (dirent* e = ::readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    int fd = std::atoi(e->d_name);
    if (fd != ::dirfd(dir)) fds.push_back(fd);
  }
  ::closedir(dir);
  std::sort(fds.begin(), fds.end());
  return fds;
}

}  // namespace kd::test
