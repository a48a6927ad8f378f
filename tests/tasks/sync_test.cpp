// The class forms: captured output, exit status, tools that cannot run, and
// time-outs. Timings are asserted loosely: the machine may be busy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "support/TempDir.h"
#include "tasks/TaskTestSupport.h"

namespace kd::test {
namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

TEST(TaskData, ReturnsOutputElseErrorElseEmpty) {
  // 1 MiB is far beyond a pipe's buffer; "big" writes its error stream first.
  constexpr std::size_t kBig = 1 << 20;
  const std::string big = std::to_string(kBig);
  struct Case {
    const char* name;
    KdTaskEx::Arguments args;
    bool logOutput;
    bool logError;
    std::string expected;
  };
  const Case cases[] = {
      {"output only", childArgs("write", {"hello"}), true, true, "hello"},
      {"error only", childArgs("write", {"", "oops"}), true, true, "oops"},
      {"output wins over error", childArgs("write", {"out", "err"}), true, true, "out"},
      {"nothing is empty data", childArgs("write"), true, true, ""},
      {"error not captured", childArgs("write", {"", "oops"}), true, false, ""},
      {"output not captured", childArgs("write", {"out", "err"}), false, true, "err"},
      {"large output", childArgs("big", {big, "0"}), true, true, pattern(kBig, 'A')},
      {"large error", childArgs("big", {"0", big}), true, true, pattern(kBig, 'a')},
      {"large error before large output", childArgs("big", {big, big}), true, true,
       pattern(kBig, 'A')},
      {"standard input is at its end", childArgs("stdin"), true, true, "0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<std::string> data = KdTaskEx::dataFromTask(selfExecutable(), c.args, nullptr,
                                                             std::nullopt, c.logOutput, c.logError);
    ASSERT_TRUE(data.has_value());
    EXPECT_EQ(data->size(), c.expected.size());
    EXPECT_TRUE(*data == c.expected);
  }
}

TEST(TaskForms, StatusHandleAndRunAndReturn) {
  KdTaskEx::TaskHandle handle;
  EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("write", {"", "", "3"})),
            3);
  EXPECT_TRUE(KdTaskEx::runTask(selfExecutable(), childArgs("write", {"", "", "7"}), &handle));
  EXPECT_EQ(handle->terminationStatus(), 7);
  EXPECT_EQ(handle->outcome().kind, KdTask::Outcome::Kind::Exited);

  // Returns at once and leaves no zombie: a zombie keeps /proc/<pid>.
  TempDir dir;
  const auto start = Clock::now();
  KdTaskEx::runTaskAndReturn(selfExecutable(), childArgs("pidfile", {dir / "pid"}));
  EXPECT_LT(secondsSince(start), 0.9);
  std::string pid;
  ASSERT_TRUE(eventually([&] { return !(pid = readFile(dir / "pid")).empty(); }));
  struct stat st {};
  EXPECT_TRUE(eventually([&] { return ::stat(("/proc/" + pid).c_str(), &st) != 0; }));
}

TEST(TaskForms, NotExecutableGivesNeutralResultsAndMessage) {
  TempDir dir;
  const std::string plain = dir.touch("plain.txt", "#!/bin/sh\necho hi\n");
  for (const std::string& path :
       {plain, dir.mkdir("folder"), dir.mkdir("Tool.app"), dir / "missing"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(KdTaskEx::isExecutableTool(path));
    EXPECT_EQ(KdTaskEx::dataFromTask(path, {}, nullptr), std::nullopt);
    EXPECT_EQ(KdTaskEx::dataFromTask(path, {}, 5.0), std::nullopt);
    EXPECT_EQ(KdTaskEx::stringFromTask(path), "");
    EXPECT_EQ(KdTaskEx::terminationCodeFromTask(path), -1);
    EXPECT_FALSE(KdTaskEx::runTask(path));
    KdTaskEx::runTaskAndReturn(path);
    EXPECT_THAT(logText(), HasSubstr("Error: " + path + " is not executable"));
  }
}

TEST(TaskEncoding, DecodesByPlatformNumber) {
  const std::string bad = "\xEF\xBF\xBD";  // U+FFFD for each byte that does not decode
  struct Case {
    std::string bytes;
    KdTaskEx::StringEncoding encoding;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"caf\xC3\xA9", KdTaskEx::ASCIIStringEncoding, "caf" + bad + bad},
      {"caf\xC3\xA9", KdTaskEx::UTF8StringEncoding, "caf\xC3\xA9"},
      {"a\xFF", KdTaskEx::UTF8StringEncoding, "a" + bad},
      {"\xC0\xAF", KdTaskEx::UTF8StringEncoding, bad + bad},                   // overlong
      {"\xED\xA0\x80", KdTaskEx::UTF8StringEncoding, bad + bad + bad},         // surrogate
      {"\xF0\x9F\x8E\xA5", KdTaskEx::UTF8StringEncoding, "\xF0\x9F\x8E\xA5"},  // 4 bytes
      {"\xE2\x82", KdTaskEx::UTF8StringEncoding, bad + bad},                   // cut short
      {"caf\xE9", KdTaskEx::ISOLatin1StringEncoding, "caf\xC3\xA9"},
      {std::string("a\0b", 3), KdTaskEx::UTF8StringEncoding, std::string("a\0b", 3)},
      {"x", 99, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(KdTaskEx::stringFromData(c.bytes, c.encoding), c.expected);
  }
  // ASCII unless told otherwise.
  EXPECT_EQ(KdTaskEx::stringFromTask(selfExecutable(), childArgs("write", {"caf\xC3\xA9"})),
            "caf" + bad + bad);
}

TEST(TaskTimeout, WholeSecondsThenTerminated) {
  // 0.9 truncates to 0 s and fires at once; 2.5 fires after 2 s.
  for (const auto& [timeout, atLeast, below] : {std::tuple{0.9, 0.0, 1.8}, {2.5, 1.9, 6.0}}) {
    SCOPED_TRACE(timeout);
    const auto start = Clock::now();
    std::optional<std::string> data =
        KdTaskEx::dataFromTask(selfExecutable(), childArgs("sleep", {"30"}), timeout);
    EXPECT_GE(secondsSince(start), atLeast);
    EXPECT_LT(secondsSince(start), below);
    ASSERT_TRUE(data.has_value());
    // What the child wrote before its end is kept; "late" never comes.
    EXPECT_TRUE(timeout < 1 || *data == "started\n") << *data;
    EXPECT_THAT(logText(), HasSubstr("Task " + selfExecutable() + " timed out. Terminating..."));
  }
  EXPECT_TRUE(KdTaskEx::runTask(selfExecutable(), childArgs("sleep", {"30"}), 1.0));
  // A child that ignores SIGTERM is killed after the grace.
  for (const auto& [args, signal, atLeast] :
       {std::tuple{KdTaskEx::Arguments{"30"}, SIGTERM, 0.9},
        {KdTaskEx::Arguments{"30", "ignore-term"}, SIGKILL, 1.0 + 1.9}}) {
    SCOPED_TRACE(args.back());
    const auto start = Clock::now();
    EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("sleep", args), 1.0),
              signal);
    EXPECT_GE(secondsSince(start), atLeast);
    EXPECT_LT(secondsSince(start), 15.0);
  }
}

TEST(TaskTimeout, NeitherAQuickRunNorAnOrphanHoldingThePipeWaitsForIt) {
  const std::size_t logSize = logText().size();
  auto start = Clock::now();
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"hi"}), 30.0), "hi");
  EXPECT_LT(secondsSince(start), 10.0);
  EXPECT_EQ(logText().size(), logSize);
  // The child exits at once; its own child keeps the output pipe open for 8 s.
  start = Clock::now();
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("orphan", {"8"}), 1.0), "parent\n");
  EXPECT_LT(secondsSince(start), 6.0);
}

}  // namespace
}  // namespace kd::test
