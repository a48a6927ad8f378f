#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>
#include <stdexcept>

#include "LogFixture.h"
#include "log/KdException.h"
#include "support/ChildMode.h"

extern char** environ;

namespace kd::test {
namespace {

using Lines = std::vector<std::string>;

TEST_F(LogTest, PrintingFrontEnds) {
  struct Case {
    const char* what;
    void (*call)();
    const char* logged;  // nullptr: nothing logged
    const char* printed;
  };
  const Case cases[] = {
      {"escaped percent", [] { KdLog::appendLogAndPrint("50%% done"); }, "50% done", "50%% done\n"},
      {"percent from an argument survives the second pass",
       [] { KdLog::appendLogAndPrint("Copied %@", "a%@b"); }, "Copied a%@b", "Copied ab\n"},
      {"trimmed", [] { KdLog::appendLogAndPrint("  %d files \n", 3); }, "3 files", "3 files\n"},
      {"blank-flag conversion stays literal", [] { KdLog::appendLogAndPrint("rate %.2f", 1.5); },
       "rate %.2f", "rate %%.2f\n"},
      {"debug variant only logs", [] { KdLog::appendLogAndDebugPrint("quiet %d", 1); }, "quiet 1",
       ""},
      {"debugPrint does nothing", [] { KdLog::debugPrint("nothing %d", 1); }, nullptr, ""},
  };
  KdLog::createNewLog();
  KdLog::finishWriting();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::size_t before = messages(logPath(1)).size();
    testing::internal::CaptureStdout();
    c.call();
    KdLog::finishWriting();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed);
    Lines after = messages(logPath(1));
    if (c.logged) {
      ASSERT_EQ(after.size(), before + 1);
      EXPECT_EQ(after.back(), c.logged);
    } else {
      EXPECT_EQ(after.size(), before);
    }
  }
}

TEST_F(LogTest, ExceptionReports) {
  KdLog::createNewLog();
  testing::internal::CaptureStdout();
  EXPECT_EQ(KdException::logException(std::runtime_error("disk full"), "-[KdTaskEx launch]"),
            "Exception in -[KdTaskEx launch]. std::runtime_error - disk full.");
  EXPECT_EQ(KdException::logException(KdException::kPortTimeoutName, "stalled at 100%", nullptr),
            "Exception in (null). NSPortTimeoutException - stalled at 100%.");
  KdLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Exception in -[KdTaskEx launch]. std::runtime_error - disk full.\n"
            "Exception in (null). NSPortTimeoutException - stalled at 100%%.\n");
  Lines logged = messages(logPath(1));
  EXPECT_EQ(Lines(logged.end() - 2, logged.end()),
            (Lines{"Exception in -[KdTaskEx launch]. std::runtime_error - disk full.",
                   "Exception in (null). NSPortTimeoutException - stalled at 100%."}));

  EXPECT_TRUE(KdException::didTimeout(KdNamedException("NSPortTimeoutException", "late")));
  EXPECT_TRUE(KdException::didTimeout("NSPortTimeoutException"));
  EXPECT_FALSE(KdException::didTimeout(KdNamedException("NSPortTimeout", "late")));
  EXPECT_FALSE(KdException::didTimeout(std::runtime_error("NSPortTimeoutException")));
  EXPECT_EQ(KdException::nameOf(KdNamedException("NSRangeException", "x")), "NSRangeException");
}

// Child: opens a log below args[0] and dies of an uncaught exception.
int dieOfUncaughtException(const std::vector<std::string>& args) {
  static LogPlatform platform;
  platform.setHomesRoot(args.at(0));
  setPlatformForTesting(&platform);
  KdLog::sharedController().setAppName("Test");
  KdLog::createNewLog();
  KdLog::appendLog("working");
  throw std::runtime_error("card vanished at 50%");
}
KD_CHILD_MODE("log-uncaught", dieOfUncaughtException);

TEST_F(LogTest, UncaughtExceptionReachesTheLog) {
  const std::string out = tmp_ / "stdout";
  const std::string exe = selfExecutable();
  const std::string homes = tmp_ / "Users";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<const char*> argv{exe.c_str(), "--kd-child", "log-uncaught", homes.c_str(), nullptr};
  pid_t pid = -1;
  ASSERT_EQ(
      posix_spawn(&pid, exe.c_str(), &actions, nullptr, const_cast<char**>(argv.data()), environ),
      0);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGABRT);

  EXPECT_EQ(readFile(out), "card vanished at 50%%\n");
  Lines logged = messages(logPath(1));
  ASSERT_GE(logged.size(), 2u);
  EXPECT_EQ(Lines(logged.end() - 2, logged.end()), (Lines{"working", "card vanished at 50%"}));
}

}  // namespace
}  // namespace kd::test
