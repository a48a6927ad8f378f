#include <sys/stat.h>

#include <thread>

#include "LogFixture.h"
#include "common/PropertyList.h"

namespace kd::test {
namespace {

using Lines = std::vector<std::string>;

Lines concat(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

TEST_F(LogTest, NewLogRotatesExistingFiles) {
  struct Case {
    const char* what;
    std::vector<int> before;  // files present, each holding "old <i>"
    // For .1 to .5 after the new log: "" absent, "new" the fresh log, or the
    // old contents expected there.
    std::vector<std::string> after;
  };
  const Case cases[] = {
      {"first three shift by one", {1, 2, 3}, {"new", "old 1", "old 2", "old 3", ""}},
      {"the oldest is removed", {1, 5}, {"new", "old 1", "", "", ""}},
      {"gaps stay gaps", {1, 3}, {"new", "old 1", "", "old 3", ""}},
      {"all five", {1, 2, 3, 4, 5}, {"new", "old 1", "old 2", "old 3", "old 4"}},
      {"no rotation without a current log", {2, 3}, {"new", "old 2", "old 3", "", ""}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    removeTree(folder());
    for (int i : c.before)
      tmp_.touch(logPath(i).substr(tmp_.path().size() + 1), "old " + std::to_string(i));
    KdLog::createNewLog();
    KdLog::finishWriting();
    for (int i = 1; i <= 5; ++i) {
      const std::string& want = c.after[i - 1];
      if (want.empty()) {
        EXPECT_FALSE(exists(logPath(i))) << i;
      } else if (want == "new") {
        EXPECT_EQ(messages(logPath(i)), expectedHeader());
      } else {
        EXPECT_EQ(readFile(logPath(i)), want) << i;
      }
    }
    KdLogTestAccess::reset();
    KdLog::sharedController().setAppName("Test");
  }
}

TEST_F(LogTest, LinesAreTrimmedEscapedAndDated) {
  KdLog::createNewLog();
  KdLog::appendLog("  padded line \n");
  KdLog::appendLog("two\nlines");
  KdLog::appendLog(" \t\n");
  KdLog::appendLog("\u3000\u00a0");
  KdLog::appendLog("Rate %.2f", 1.5);
  KdLog::appendLog("Rate %0.2f", 1.5);
  KdLog::fastAppendLog("Copied %@ (%llu bytes)", "A001.mov", 1234567890123ull);
  KdLog::finishWriting();
  EXPECT_EQ(messages(logPath(1)),
            concat(expectedHeader(), {"padded line", "two", "<no date> lines", "Rate %.2f",
                                      "Rate 1.50", "Copied A001.mov (1234567890123 bytes)"}));
  EXPECT_EQ(KdLog::sharedController().bytesInQueue(), 0u);
  EXPECT_EQ(KdLog::sharedController().bytesWritten(), readFile(logPath(1)).size());
}

TEST_F(LogTest, ShortLineFromBackgroundThreadIsWrittenBeforeReturning) {
  KdLog::createNewLog();
  KdLog::finishWriting();
  std::thread([] { KdLog::appendLog("from a worker"); }).join();
  // No finishWriting here: the append itself waited.
  EXPECT_EQ(messages(logPath(1)).back(), "from a worker");
}

TEST_F(LogTest, GlobalPreferenceDisablesLogging) {
  struct Case {
    const char* what;
    std::optional<PlistValue> value;  // none: the key is missing
    bool disabled;
  };
  const Case cases[] = {
      {"string 1", PlistValue("1"), true},  {"boolean true", PlistValue(true), true},
      {"integer 1", PlistValue(1), true},   {"real 1.0", PlistValue(1.0), true},
      {"string 0", PlistValue("0"), false}, {"string yes", PlistValue("yes"), false},
      {"integer 0", PlistValue(0), false},  {"integer 2", PlistValue(2), false},
      {"missing key", std::nullopt, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    PlistDict prefs{{"other", PlistValue("1")}};
    if (c.value) prefs["disable-logging"] = *c.value;
    tmp_.mkdir("Users/bob/Library/Preferences");
    ASSERT_TRUE(writePlistDictionaryAtomically(prefs, globalPrefsPath()));
    removeTree(folder());

    testing::internal::CaptureStdout();
    KdLog::createNewLog();
    KdLog::appendLog("a line");
    KdLog::appendLogAndPrint("printed");
    KdLog::finishWriting();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(KdLog::sharedController().loggingDisabled(), c.disabled);
    if (c.disabled) {
      EXPECT_EQ(out, "Logging is disabled\n");
      EXPECT_FALSE(exists(logPath(1)));
      // Disabled is final: a later new log stays off even without the file.
      ::unlink(globalPrefsPath().c_str());
      KdLog::createNewLog();
      EXPECT_FALSE(exists(logPath(1)));
    } else {
      EXPECT_EQ(out, "printed\n");
      EXPECT_EQ(messages(logPath(1)), concat(expectedHeader(), {"a line", "printed"}));
    }
    KdLogTestAccess::reset();
    KdLog::sharedController().setAppName("Test");
  }
}

TEST_F(LogTest, NameComesFromExecutableThenArgumentThenUnknown) {
  struct Case {
    std::optional<std::string> executable;
    std::optional<std::string> argument;
    const char* file;
  };
  const Case cases[] = {
      {"/opt/Ferrimo/bin/FerrimoHelper.bin", "Given", "FerrimoHelper.1.log"},
      {std::nullopt, "Given", "Given.1.log"},
      {std::nullopt, std::nullopt, "Unknown.1.log"},
      {"", std::nullopt, "Unknown.1.log"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    removeTree(folder());
    KdLogTestAccess::reset();
    platform_.bundle.executablePath = c.executable;
    KdLog::createNewLog(c.argument);
    KdLog::finishWriting();
    EXPECT_TRUE(exists(folder() + "/" + c.file));
  }
}

TEST_F(LogTest, FailuresAreReportedOnStandardOutput) {
  // No log was created: each line reports that it could not be written.
  testing::internal::CaptureStdout();
  KdLog::appendLog("lost line");
  KdLog::finishWriting();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to log the following information: lost line\n"
            "Unable to open log for output\n");

  // A folder that cannot be created.
  tmp_.touch("Users/bob/Library/Logs", "a file where the folder should be");
  testing::internal::CaptureStdout();
  KdLog::createNewLog();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unable to create folder " + folder() + ".\n");
  ::unlink((tmp_ / "Users/bob/Library/Logs").c_str());

  // An oldest log that refuses to go blocks the rotation before any file
  // moves, and no new log is made.
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.1.log", "old 1");
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.4.log", "old 4");
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.5.log/keep", "");
  testing::internal::CaptureStdout();
  KdLog::createNewLog();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Unable to move file " + logPath(4) + " to " + logPath(5) + ".\n");
  EXPECT_EQ(readFile(logPath(1)), "old 1");
}

TEST_F(LogTest, RootRotatesInUserFolderAndWritesInMachineFolder) {
  platform_.setUid(0);
  platform_.setSearchPath(DirectoryKind::Library, LocalDomainMask, {tmp_ / "Library"});
  const std::string machineLog = tmp_ / "Library/Logs/Quillfen/Test.1.log";
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.1.log", "old 1");

  // The machine folder is not created for the log.
  testing::internal::CaptureStdout();
  KdLog::createNewLog();
  EXPECT_EQ(testing::internal::GetCapturedStdout().rfind(
                "Unable to create log file " + machineLog + " - ", 0),
            0u);

  EXPECT_EQ(readFile(logPath(1)), "old 1");

  // Rotation looks at the machine's current file but shifts the user's files.
  tmp_.mkdir("Library/Logs/Quillfen");
  KdLog::createNewLog();
  KdLog::appendLog("as root");
  KdLog::finishWriting();
  EXPECT_EQ(readFile(logPath(1)), "old 1");
  EXPECT_EQ(messages(machineLog), concat(expectedHeader(), {"as root"}));

  KdLog::createNewLog();
  KdLog::finishWriting();
  EXPECT_FALSE(exists(logPath(1)));
  EXPECT_EQ(readFile(logPath(2)), "old 1");
  EXPECT_EQ(messages(machineLog), expectedHeader());
  // The list of logs looks in the user's folder only.
  EXPECT_EQ(KdLog::availableLogs(), (Lines{logPath(2)}));
}

TEST_F(LogTest, AvailableLogsNewestFirst) {
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.3.log");
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Test.1.log");
  tmp_.touch("Users/bob/Library/Logs/Quillfen/Other.2.log");
  EXPECT_EQ(KdLog::availableLogs(), (Lines{logPath(1), logPath(3)}));
}

TEST_F(LogTest, RollOverStartsNewFileWithHeaderAndNotice) {
  KdLog::createNewLog();
  const std::string line(200, 'x');
  std::size_t count = 0;
  while (!exists(logPath(2))) {
    KdLog::fastAppendLog("%06zu %@", count++, line);
    if (count % 1000 == 0) KdLog::finishWriting();
  }
  KdLog::fastAppendLog("after");
  KdLog::finishWriting();

  const std::string full = readFile(logPath(2));
  EXPECT_GE(full.size(), 500000u);
  EXPECT_LT(full.size(), 500000u + 240u);
  Lines old = messages(logPath(2));
  ASSERT_GT(old.size(), 5u);
  EXPECT_EQ(Lines(old.begin(), old.begin() + 5), expectedHeader());

  Lines fresh = messages(logPath(1));
  Lines head = concat(expectedHeader(), {"Log truncated at 500KB"});
  ASSERT_GE(fresh.size(), head.size());
  EXPECT_EQ(Lines(fresh.begin(), fresh.begin() + head.size()), head);
  EXPECT_EQ(fresh.back(), "after");
  // Nothing lost between the files.
  EXPECT_EQ(old.size() - 5 + fresh.size() - 6 - 1, count);
}

TEST_F(LogTest, WillTerminateEndsTheLog) {
  KdLog::createNewLog();
  KdLog::appendLog("before the end");
  KdLog::willTerminate();
  KdLog::appendLog("after the end");
  KdLog::finishWriting();
  EXPECT_EQ(messages(logPath(1)), concat(expectedHeader(), {"before the end"}));
}

TEST_F(LogTest, WillTerminateWithBacklogKeepsAnInOrderPrefix) {
  KdLog::createNewLog();
  KdLog::finishWriting();
  for (int i = 0; i < 5000; ++i) KdLog::fastAppendLog("line %d", i);
  KdLog::willTerminate();
  Lines got = messages(logPath(1));
  got.erase(got.begin(), got.begin() + 5);
  for (std::size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], "line " + std::to_string(i));
}

}  // namespace
}  // namespace kd::test
