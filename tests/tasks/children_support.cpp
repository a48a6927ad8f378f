// The behaviours the task tests start as child processes (the test program
// itself, run with "--kd-child <name> args..."), and the test program's log.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "common/AtomicFile.h"
#include "log/KdLog.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"
#include "tasks/TaskTestSupport.h"

namespace kd::test {
namespace {

// Written through at once: the tests watch what arrives while a child runs.
void put(FILE* stream, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stream);
  std::fflush(stream);
}

std::string arg(const std::vector<std::string>& args, std::size_t i, const char* otherwise = "") {
  return i < args.size() ? args[i] : otherwise;
}

void sleepSeconds(const std::string& seconds) {
  std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(seconds)));
}

// write OUT [ERR [CODE]]: OUT to standard output, ERR to standard error.
int writeText(const std::vector<std::string>& args) {
  put(stdout, arg(args, 0));
  put(stderr, arg(args, 1));
  return std::stoi(arg(args, 2, "0"));
}
KD_CHILD_MODE("write", writeText);

// big OUT_BYTES ERR_BYTES: the error stream first, then output, so that a
// reader that waits for output before touching error would stall.
int writeBig(const std::vector<std::string>& args) {
  put(stderr, pattern(std::stoul(arg(args, 1)), 'a'));
  put(stdout, pattern(std::stoul(arg(args, 0)), 'A'));
  return 0;
}
KD_CHILD_MODE("big", writeBig);

// sleep SECONDS [ignore-term]: says "started", then sleeps.
int sleepFor(const std::vector<std::string>& args) {
  if (arg(args, 1) == "ignore-term") ::signal(SIGTERM, SIG_IGN);
  put(stdout, "started\n");
  sleepSeconds(arg(args, 0));
  put(stdout, "late\n");
  return 0;
}
KD_CHILD_MODE("sleep", sleepFor);

// orphan SECONDS: leaves a process behind that keeps standard output open.
int leaveOrphan(const std::vector<std::string>& args) {
  put(stdout, "parent\n");
  if (::fork() == 0) sleepSeconds(arg(args, 0)), ::_exit(0);
  return 0;
}
KD_CHILD_MODE("orphan", leaveOrphan);

// pidfile PATH: writes its process id to PATH, then sleeps a second.
int writePid(const std::vector<std::string>& args) {
  (void)writeFileAtomically(arg(args, 0), std::to_string(::getpid()));
  sleepSeconds("1");
  return 0;
}
KD_CHILD_MODE("pidfile", writePid);

// fds: the child's open descriptors, one per line.
int listFds(const std::vector<std::string>&) {
  std::string out;
  for (int fd : openFds()) out += std::to_string(fd) + "\n";
  put(stdout, out);
  return 0;
}
KD_CHILD_MODE("fds", listFds);

// stdin: how many bytes standard input gave before its end.
int countInput(const std::vector<std::string>&) {
  char buf[4096];
  std::size_t total = 0;
  for (ssize_t n; (n = ::read(0, buf, sizeof buf)) > 0;) total += static_cast<std::size_t>(n);
  put(stdout, std::to_string(total));
  return 0;
}
KD_CHILD_MODE("stdin", countInput);

// The fake platform is never freed: the log writer and background reapers
// may still be about while the program ends.
class LogEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    home_.emplace();
    auto* fake = new FakeMacPlatform();
    fake->setUid(501);
    fake->setHomesRoot(home_->mkdir("Users"));
    setPlatformForTesting(fake);
    KdLog::createNewLog(std::string("kd_tasks_tests"));
  }
  void TearDown() override { KdLog::finishWriting(), home_.reset(); }

 private:
  std::optional<TempDir> home_;
};
[[maybe_unused]] ::testing::Environment* const gLogEnvironment =
    ::testing::AddGlobalTestEnvironment(new LogEnvironment);

}  // namespace

std::string pattern(std::size_t size, char seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>(seed + i % 23);
  return s;
}

std::string logText() {
  KdLog::finishWriting();
  std::vector<std::string> logs = KdLog::availableLogs();
  return logs.empty() ? std::string() : readFile(logs.front());
}

}  // namespace kd::test
