#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "LogFixture.h"
#include "log/KdException.h"
#include "support/ChildMode.h"
#include "support/Process.h"

namespace kd::test {
namespace {

TEST_F(LogTest, PrintingFrontEnds) {
  KdLog::createNewLog();
  testing::internal::CaptureStdout();
  KdLog::appendLogAndPrint("50%% done");
  // A percent sign from an argument survives into the second formatting pass.
  KdLog::appendLogAndPrint("Copied %@", "a%@b");
  KdLog::appendLogAndPrint("  %d files \n", 3);
  KdLog::appendLogAndPrint("rate %.2f", 1.5);
  KdLog::appendLogAndDebugPrint("quiet %d", 1);
  KdLog::debugPrint("nothing %d", 1);
  KdLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "50%% done\nCopied ab\n3 files\nrate %%.2f\n");
  EXPECT_EQ(messages(logPath(1)),
            withHeader({"50% done", "Copied a%@b", "3 files", "rate %.2f", "quiet 1"}));
}

TEST_F(LogTest, ExceptionReports) {
  const std::string run = "Exception in -[KdTaskEx run]. std::runtime_error - disk full.";
  const std::string timeout = "Exception in (null). NSPortTimeoutException - stalled at 100%.";
  KdLog::createNewLog();
  testing::internal::CaptureStdout();
  EXPECT_EQ(KdException::logException(std::runtime_error("disk full"), "-[KdTaskEx run]"), run);
  EXPECT_EQ(KdException::logException(KdException::kPortTimeoutName, "stalled at 100%", nullptr),
            timeout);
  KdLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            run + "\nException in (null). NSPortTimeoutException - stalled at 100%%.\n");
  EXPECT_EQ(messages(logPath(1)), withHeader({run, timeout}));

  EXPECT_TRUE(KdException::didTimeout(KdNamedException("NSPortTimeoutException", "late")));
  EXPECT_FALSE(KdException::didTimeout(KdNamedException("NSPortTimeout", "late")));
  EXPECT_FALSE(KdException::didTimeout(std::runtime_error("NSPortTimeoutException")));
}

// Child: opens a log below args[0] and dies of an uncaught exception, with
// its standard output in the file args[1].
int dieOfUncaughtException(const std::vector<std::string>& args) {
  if (!std::freopen(args.at(1).c_str(), "w", stdout) || !std::freopen("/dev/null", "w", stderr))
    return 1;
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
  const std::string out = tmp_ / "stdout", exe = selfExecutable(), homes = tmp_ / "Users";
  const pid_t pid = spawn({exe, "--kd-child", "log-uncaught", homes, out});
  ASSERT_GT(pid, 0);
  const int status = waitFor(pid);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << "status " << status;
  EXPECT_EQ(readFile(out), "card vanished at 50%%\n");
  EXPECT_EQ(messages(logPath(1)), withHeader({"working", "card vanished at 50%"}));
}

}  // namespace
}  // namespace kd::test
