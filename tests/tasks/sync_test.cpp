#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"
#include "tasks/TaskTestSupport.h"

using kd::test::childArgs;
using kd::test::selfExecutable;
using ::testing::HasSubstr;

namespace {

std::string pattern(std::size_t size, char seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>(seed + i % 23);
  return s;
}

TEST(TaskData, ReturnsOutputElseErrorElseEmpty) {
  // 1 MiB is far beyond a pipe's buffer; "big" writes its error stream first.
  constexpr std::size_t kBig = 1 << 20;
  struct Case {
    const char* name;
    KdTaskEx::Arguments args;
    bool logOutput;
    bool logError;
    std::string expected;
  };
  const Case cases[] = {
      {"output only", childArgs("write", {"hello"}), true, true, "hello"},
      {"error only", childArgs("err", {"oops"}), true, true, "oops"},
      {"output wins over error", childArgs("write", {"out", "err"}), true, true, "out"},
      {"nothing is empty data", childArgs("write"), true, true, ""},
      {"error not captured", childArgs("err", {"oops"}), true, false, ""},
      {"output not captured", childArgs("write", {"", "err"}), false, true, "err"},
      {"large output", childArgs("big", {std::to_string(kBig), "0"}), true, true,
       pattern(kBig, 'A')},
      {"large error", childArgs("big", {"0", std::to_string(kBig)}), true, true,
       pattern(kBig, 'a')},
      {"large error before large output", childArgs("big", {std::to_string(kBig), "65536"}), true,
       true, pattern(kBig, 'A')},
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

TEST(TaskData, EnvironmentReplacesTheInheritedOne) {
  const char* home = std::getenv("HOME");
  ASSERT_NE(home, nullptr);
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("env", {"HOME"}), nullptr),
            std::string(home));
  KdTaskEx::Environment env{{"KD_PROBE", "yes"}};
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("env", {"KD_PROBE"}), nullptr, env),
            "yes");
  EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("env", {"HOME"}), nullptr, env),
            "<unset>");
}

TEST(TaskForms, StatusAndHandle) {
  EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("exit", {"3"})), 3);
  EXPECT_EQ(KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("exit", {"0"})), 0);

  KdTaskEx::TaskHandle handle;
  EXPECT_TRUE(KdTaskEx::runTask(selfExecutable(), childArgs("exit", {"7"}), &handle));
  ASSERT_TRUE(handle);
  EXPECT_FALSE(handle->isRunning());
  EXPECT_EQ(handle->terminationStatus(), 7);
  EXPECT_EQ(handle->outcome().kind, KdTask::Outcome::Kind::Exited);
  EXPECT_EQ(handle->launchPath(), selfExecutable());
}

TEST(TaskForms, NotExecutableGivesNeutralResultsAndMessage) {
  kd::test::TempDir dir;
  const std::string plain = dir.touch("plain.txt", "#!/bin/sh\necho hi\n");
  const std::string folder = dir.mkdir("folder");
  ::chmod(folder.c_str(), 0755);
  const std::string package = dir.mkdir("Tool.app");
  ::chmod(package.c_str(), 0755);
  const std::string missing = dir / "missing";
  for (const std::string& path : {plain, folder, package, missing}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(KdTaskEx::isExecutableTool(path));
    EXPECT_EQ(KdTaskEx::dataFromTask(path, {}, nullptr), std::nullopt);
    EXPECT_EQ(KdTaskEx::dataFromTask(path, {}, 5.0), std::nullopt);
    EXPECT_EQ(KdTaskEx::stringFromTask(path), "");
    EXPECT_EQ(KdTaskEx::terminationCodeFromTask(path), -1);
    EXPECT_FALSE(KdTaskEx::runTask(path));
    KdTaskEx::runTaskAndReturn(path);
    EXPECT_THAT(kd::test::logText(), HasSubstr("Error: " + path + " is not executable"));
  }
}

TEST(TaskForms, RunAndReturnLeavesNoZombie) {
  kd::test::TempDir dir;
  const std::string pidFile = dir / "pid";
  const auto start = std::chrono::steady_clock::now();
  KdTaskEx::runTaskAndReturn(selfExecutable(), childArgs("pidfile", {pidFile, "1"}));
  EXPECT_LT(kd::test::secondsSince(start), 0.9);

  std::string pid;
  for (int i = 0; i < 500 && pid.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pid = kd::test::readFile(pidFile);
  }
  ASSERT_FALSE(pid.empty());
  // Gone altogether (reaped), not merely ended: a zombie keeps /proc/<pid>.
  const std::string proc = "/proc/" + pid;
  struct stat st {};
  bool gone = false;
  for (int i = 0; i < 1000 && !gone; ++i) {
    gone = ::stat(proc.c_str(), &st) != 0;
    if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(gone) << kd::test::readFile(proc + "/stat");
}

TEST(TaskEncoding, DecodesByPlatformNumber) {
  struct Case {
    std::string bytes;
    KdTaskEx::StringEncoding encoding;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"plain", KdTaskEx::ASCIIStringEncoding, "plain"},
      {"caf\xC3\xA9", KdTaskEx::ASCIIStringEncoding, "caf\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"caf\xC3\xA9", KdTaskEx::UTF8StringEncoding, "caf\xC3\xA9"},
      {"a\xFF"
       "b",
       KdTaskEx::UTF8StringEncoding,
       "a\xEF\xBF\xBD"
       "b"},
      {"\xC0\xAF", KdTaskEx::UTF8StringEncoding, "\xEF\xBF\xBD\xEF\xBF\xBD"},  // overlong
      {"\xED\xA0\x80", KdTaskEx::UTF8StringEncoding,
       "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},                                // surrogate
      {"\xF0\x9F\x8E\xA5", KdTaskEx::UTF8StringEncoding, "\xF0\x9F\x8E\xA5"},  // 4 bytes
      {"\xE2\x82", KdTaskEx::UTF8StringEncoding, "\xEF\xBF\xBD\xEF\xBF\xBD"},  // cut short
      {"caf\xE9", KdTaskEx::ISOLatin1StringEncoding, "caf\xC3\xA9"},
      {std::string("a\0b", 3), KdTaskEx::UTF8StringEncoding, std::string("a\0b", 3)},
      {"x", 99, std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(KdTaskEx::stringFromData(c.bytes, c.encoding), c.expected);
  }
  EXPECT_EQ(KdTaskEx::stringFromTask(selfExecutable(), childArgs("write", {"caf\xC3\xA9"}),
                                     KdTaskEx::UTF8StringEncoding),
            "caf\xC3\xA9");
  EXPECT_EQ(KdTaskEx::stringFromTask(selfExecutable(), childArgs("write", {"caf\xC3\xA9"})),
            "caf\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(TaskDescriptors, NoneLeakIntoTheChildOrStayOpen) {
  const std::vector<int> before = kd::test::openFds();
  // Runs from other threads at the same time must not hand their pipes over.
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([] {
      for (int k = 0; k < 5; ++k)
        KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"x"}), nullptr);
    });
  }
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(KdTaskEx::dataFromTask(selfExecutable(), childArgs("fds"), nullptr), "0\n1\n2\n");
  }
  for (auto& t : others) t.join();
  KdTaskEx::runTask(selfExecutable(), childArgs("write", {"x"}));
  KdTaskEx::terminationCodeFromTask(selfExecutable(), childArgs("exit", {"1"}), 10.0);
  KdTaskEx::dataFromTask(selfExecutable(), childArgs("write", {"x"}), 10.0);
  KdTaskEx::dataFromTask("/nonexistent/tool", {}, nullptr);
  EXPECT_EQ(kd::test::openFds(), before);
}

}  // namespace
