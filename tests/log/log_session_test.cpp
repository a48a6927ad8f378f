#include <filesystem>
#include <thread>

#include "LogFixture.h"
#include "common/PropertyList.h"

namespace kd::test {
namespace {

using std::filesystem::exists;

TEST_F(LogTest, NewLogRotatesExistingFiles) {
  struct Case {
    const char* what;
    std::vector<int> before;  // files present, each holding "old <i>"
    // For .1 to .5 after the new log: "-" absent, "new" the fresh log, or the
    // old contents expected there.
    std::vector<std::string> after;
  };
  const Case cases[] = {
      {"all shift, .5 goes", {1, 2, 3, 4, 5}, {"new", "old 1", "old 2", "old 3", "old 4"}},
      {"gaps stay gaps, .5 is removed", {1, 3, 5}, {"new", "old 1", "-", "old 3", "-"}},
      {"no rotation without a current log", {2, 3}, {"new", "old 2", "old 3", "-", "-"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    removeTree(folder());
    for (int i : c.before)
      tmp_.touch(logPath(i).substr(tmp_.path().size() + 1), "old " + std::to_string(i));
    tmp_.touch("Users/bob/Library/Logs/Quillfen/Other.1.log");  // another program's log
    KdLog::createNewLog();
    KdLog::finishWriting();
    Lines present;
    for (int i = 1; i <= 5; ++i) {
      const std::string p = logPath(i);
      if (exists(p)) present.push_back(p);
      const std::string got = !exists(p) ? "-" : messages(p) == withHeader() ? "new" : readFile(p);
      EXPECT_EQ(got, c.after[i - 1]) << i;
    }
    EXPECT_EQ(KdLog::availableLogs(), present) << "newest first, this program's only";
    restart();
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
            withHeader({"padded line", "two", "<no date> lines", "Rate %.2f", "Rate 1.50",
                        "Copied A001.mov (1234567890123 bytes)"}));
  EXPECT_EQ(KdLog::sharedController().bytesInQueue(), 0u);
  EXPECT_EQ(KdLog::sharedController().bytesWritten(), readFile(logPath(1)).size());

  // A short line from a background thread is written before the call returns.
  std::thread([] { KdLog::appendLog("from a worker"); }).join();
  EXPECT_EQ(messages(logPath(1)).back(), "from a worker");

  // The end of the program writes a short backlog, and nothing after it.
  KdLog::appendLog("before the end");
  KdLog::willTerminate();
  KdLog::appendLog("after the end");
  KdLog::finishWriting();
  EXPECT_EQ(messages(logPath(1)).back(), "before the end");
}

TEST_F(LogTest, GlobalPreferenceDisablesLogging) {
  struct Case {
    const char* what;
    std::optional<PlistValue> value;  // none: no preferences file
    bool disabled;
  };
  const Case cases[] = {
      // Which values set the flag is the property list tests' matter.
      {"string 1", PlistValue("1"), true},
      {"integer 0", PlistValue(0), false},
      {"missing file", std::nullopt, false},
  };
  const std::string prefs =
      tmp_.mkdir("Users/bob/Library/Preferences") + "/com.quillfen.global.plist";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ::unlink(prefs.c_str());
    const PlistDict dict{{"other", PlistValue("1")}, {"disable-logging", c.value.value_or(0)}};
    ASSERT_TRUE(!c.value || writePlistDictionaryAtomically(dict, prefs));
    removeTree(folder());

    testing::internal::CaptureStdout();
    KdLog::createNewLog();
    KdLog::appendLogAndPrint("printed");
    KdLog::finishWriting();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ(KdLog::sharedController().loggingDisabled(), c.disabled);
    if (c.disabled) {
      EXPECT_EQ(out, "Logging is disabled\n");
      EXPECT_FALSE(exists(logPath(1)));
    } else {
      EXPECT_EQ(out, "printed\n");
      EXPECT_EQ(messages(logPath(1)), withHeader({"printed"}));
    }
    restart();
  }
}

TEST_F(LogTest, NameComesFromExecutableThenArgumentThenUnknown) {
  using Name = std::optional<std::string>;
  const std::tuple<Name, Name, const char*> cases[] = {
      // executable, argument, first log
      {"/opt/Ferrimo/bin/FerrimoHelper.bin", "Given", "FerrimoHelper.1.log"},
      {std::nullopt, "Given", "Given.1.log"},
      {"", std::nullopt, "Unknown.1.log"},
  };
  for (const auto& [executable, argument, file] : cases) {
    removeTree(folder());
    KdLogTestAccess::reset();
    platform_.bundle.executablePath = executable;
    KdLog::createNewLog(argument);
    KdLog::finishWriting();
    EXPECT_TRUE(exists(folder() + "/" + file)) << file;
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
  EXPECT_TRUE(testing::internal::GetCapturedStdout().starts_with("Unable to create log file " +
                                                                 machineLog + " - "));

  // Rotation looks at the machine's current file but shifts the user's files.
  tmp_.mkdir("Library/Logs/Quillfen");
  KdLog::createNewLog();
  KdLog::appendLog("as root");
  KdLog::finishWriting();
  EXPECT_EQ(readFile(logPath(1)), "old 1");
  EXPECT_EQ(messages(machineLog), withHeader({"as root"}));

  KdLog::createNewLog();
  KdLog::finishWriting();
  EXPECT_FALSE(exists(logPath(1)));
  EXPECT_EQ(readFile(logPath(2)), "old 1");
  EXPECT_EQ(messages(machineLog), withHeader());
  // The list of logs looks in the user's folder only.
  EXPECT_EQ(KdLog::availableLogs(), (Lines{logPath(2)}));
}

TEST_F(LogTest, WillTerminateWithBacklogKeepsAnInOrderPrefix) {
  KdLog::createNewLog();
  KdLog::finishWriting();
  for (int i = 0; i < 5000; ++i) KdLog::fastAppendLog("line %d", i);
  KdLog::willTerminate();
  const Lines got = messages(logPath(1));
  for (std::size_t i = 5; i < got.size(); ++i) ASSERT_EQ(got[i], "line " + std::to_string(i - 5));
}

}  // namespace
}  // namespace kd::test
