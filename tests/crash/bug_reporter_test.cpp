#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "crash/CrashChild.h"
#include "crash/KdBugReporter.h"
#include "log/KdLog.h"
#include "log/KdLogTesting.h"
#include "support/ChildMode.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;

// macOS answers, with the homes below a temporary folder, a bundle named
// "FerrimoHelper", and the workspace calls of the bug-reporter launch recorded
// instead of made.
class ReporterPlatform : public FakeMacPlatform {
 public:
  struct Opened {
    std::string file;
    std::string with;  // application path or bundle identifier
  };

  explicit ReporterPlatform(const std::string& root) {
    setHomesRoot(root + "/Users");
    setSearchPath(DirectoryKind::Library, LocalDomainMask, {root + "/Library"});
  }

  void setBundledBugReporter(std::optional<std::string> app) {
    std::lock_guard l(mu_);
    bundled_ = std::move(app);
  }
  // Installs real handlers instead of recording the call.
  void setRealCrashHandler(bool real) { realHandler_ = real; }
  std::vector<Opened> opened() const {
    std::lock_guard l(mu_);
    return opened_;
  }
  std::vector<std::pair<std::string, std::string>> crashHandlers() const {
    std::lock_guard l(mu_);
    return handlers_;
  }
  // Lookups of a log folder: every crash-report folder starts with one.
  int logLookups() const {
    std::lock_guard l(mu_);
    return logLookups_;
  }
  void resetLogLookups() {
    std::lock_guard l(mu_);
    logLookups_ = 0;
  }

  BundleInfo mainBundle() override {
    BundleInfo info;
    info.name = "FerrimoHelper";
    return info;
  }
  std::vector<std::string> searchPathForDirectories(DirectoryKind kind,
                                                    unsigned domainMask) override {
    if (kind == DirectoryKind::Logs) {
      std::lock_guard l(mu_);
      ++logLookups_;
    }
    return FakeMacPlatform::searchPathForDirectories(kind, domainMask);
  }
  std::optional<std::string> bundledApplication(const std::string& name) override {
    std::lock_guard l(mu_);
    return name == "Bug Reporter" ? bundled_ : std::nullopt;
  }
  bool openFileWithApplication(const std::string& file, const std::string& app) override {
    std::lock_guard l(mu_);
    opened_.push_back({file, app});
    return true;
  }
  bool openFileWithBundleIdentifier(const std::string& file, std::string_view id) override {
    std::lock_guard l(mu_);
    opened_.push_back({file, std::string(id)});
    return true;
  }
  void installCrashHandler(const std::string& appName, const std::string& folder) override {
    if (realHandler_) return FakeMacPlatform::installCrashHandler(appName, folder);
    std::lock_guard l(mu_);
    handlers_.emplace_back(appName, folder);
  }

 private:
  mutable std::mutex mu_;
  std::optional<std::string> bundled_;
  bool realHandler_ = false;
  std::vector<Opened> opened_;
  std::vector<std::pair<std::string, std::string>> handlers_;
  int logLookups_ = 0;
};

// Whole seconds, as property lists keep dates.
PlistDate wholeSeconds(PlistDate t) {
  return std::chrono::floor<std::chrono::seconds>(t);
}

void writeRecord(const std::string& path, std::optional<PlistDate> launch,
                 std::optional<PlistDate> exit) {
  std::filesystem::create_directories(path::deletingLastComponent(path));
  PlistDict record;
  record["lastStartup"] = PlistValue(Clock::now());
  if (launch) record["launch"] = PlistValue(*launch);
  if (exit) record["exit"] = PlistValue(*exit);
  ASSERT_TRUE(writePlistDictionaryAtomically(record, path));
}

void setModified(const std::string& path, PlistDate when) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
  struct timespec times[2];
  times[0].tv_sec = times[1].tv_sec = ns / 1000000000;
  times[0].tv_nsec = times[1].tv_nsec = ns % 1000000000;
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

std::vector<std::string> listingOrder(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  return names;
}

class BugReporterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KdLogTestAccess::reset();
    KdLog::createNewLog("FerrimoHelper");
  }
  void TearDown() override { KdLogTestAccess::reset(); }

  std::string userLogs() const { return tmp_ / "Users/bob/Library/Logs"; }
  std::string localLogs() const { return tmp_ / "Library/Logs"; }
  std::string record() const {
    return tmp_ / "Users/bob/Library/Preferences/com.quillfen.Ferrimo.plist";
  }
  std::string logText() const {
    KdLog::finishWriting();
    return readFile(userLogs() + "/Quillfen/FerrimoHelper.1.log");
  }

  TempDir tmp_;
  ReporterPlatform platform_{tmp_.path()};
  ScopedPlatform scoped_{platform_};
};

TEST_F(BugReporterTest, FindsTheReportThatProvesACrash) {
  const PlistDate launch = wholeSeconds(Clock::now() - 1h);
  struct Report {
    const char* folder;  // below the temporary folder
    const char* name;
    std::chrono::seconds modified;  // relative to "launch"
  };
  struct Case {
    const char* what;
    bool hasRecord;
    bool hasLaunch;
    std::optional<std::chrono::seconds> exit;  // relative to "launch"
    std::optional<std::string> appName;
    std::vector<Report> reports;
    std::optional<std::string> expected;  // below the temporary folder
  };
  const char* userDiag = "Users/bob/Library/Logs/DiagnosticReports";
  const char* userCrash = "Users/bob/Library/Logs/CrashReporter";
  const char* localDiag = "Library/Logs/DiagnosticReports";
  const char* localCrash = "Library/Logs/CrashReporter";
  const std::string report = "FerrimoHelper_2020-01-01-120000_Mac.crash";
  const Case cases[] = {
      {"launch only, report after it",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, report.c_str(), 10s}},
       std::string(userDiag) + "/" + report},
      {"name from the main bundle",
       true,
       true,
       {},
       {},
       {{userDiag, report.c_str(), 10s}},
       std::string(userDiag) + "/" + report},
      {"exit earlier than launch",
       true,
       true,
       -5s,
       "FerrimoHelper",
       {{userDiag, report.c_str(), 10s}},
       std::string(userDiag) + "/" + report},
      {"exit later than launch",
       true,
       true,
       5s,
       "FerrimoHelper",
       {{userDiag, report.c_str(), 10s}},
       {}},
      {"exit equal to launch",
       true,
       true,
       0s,
       "FerrimoHelper",
       {{userDiag, report.c_str(), 10s}},
       {}},
      {"no launch", true, false, {}, "FerrimoHelper", {{userDiag, report.c_str(), 10s}}, {}},
      {"no record", false, false, {}, "FerrimoHelper", {{userDiag, report.c_str(), 10s}}, {}},
      {"report older than launch",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, report.c_str(), -10s}},
       {}},
      {"report as old as launch",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, report.c_str(), 0s}},
       {}},
      {"case ignored",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, "ferrimohelper_x.crash", 10s}},
       std::string(userDiag) + "/ferrimohelper_x.crash"},
      {"name must be followed by _",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, "FerrimoHelperX_1.crash", 10s}, {userDiag, "FerrimoHelper.crash", 10s}},
       {}},
      {"other application",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, "Ferrimo_1.crash", 10s}},
       {}},
      {"CrashReporter before DiagnosticReports",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userDiag, "FerrimoHelper_b.crash", 20s}, {userCrash, "FerrimoHelper_a.crash", 10s}},
       std::string(userCrash) + "/FerrimoHelper_a.crash"},
      {"an old report moves the search on",
       true,
       true,
       {},
       "FerrimoHelper",
       {{userCrash, "FerrimoHelper_a.crash", -10s}, {localCrash, "FerrimoHelper_c.crash", 10s}},
       std::string(localCrash) + "/FerrimoHelper_c.crash"},
      {"user folders before the machine's",
       true,
       true,
       {},
       "FerrimoHelper",
       {{localCrash, "FerrimoHelper_c.crash", 10s}, {userDiag, "FerrimoHelper_b.crash", 10s}},
       std::string(userDiag) + "/FerrimoHelper_b.crash"},
      {"machine's DiagnosticReports last",
       true,
       true,
       {},
       "FerrimoHelper",
       {{localDiag, "FerrimoHelper_d.crash", 10s}},
       std::string(localDiag) + "/FerrimoHelper_d.crash"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir tmp;
    ReporterPlatform platform(tmp.path());
    ScopedPlatform scoped(platform);
    const std::string recordPath = tmp / "record.plist";
    if (c.hasRecord)
      writeRecord(recordPath, c.hasLaunch ? std::optional(launch) : std::nullopt,
                  c.exit ? std::optional(launch + *c.exit) : std::nullopt);
    for (const auto& r : c.reports) {
      std::string path = tmp.touch(std::string(r.folder) + "/" + r.name, "report");
      setModified(path, launch + r.modified);
    }
    platform.resetLogLookups();

    auto found = KdBugReporter::checkForCrashes(c.appName, recordPath);

    std::optional<std::string> expected;
    if (c.expected) expected = tmp / *c.expected;
    EXPECT_EQ(found, expected);
    auto opened = platform.opened();
    if (expected) {
      ASSERT_EQ(opened.size(), 1u);
      EXPECT_EQ(opened[0].file, *expected);
      EXPECT_EQ(opened[0].with, "com.quillfen.BugReporter");
    } else {
      EXPECT_TRUE(opened.empty());
    }
    // A run that ended normally is settled by the record alone.
    if (c.exit && *c.exit >= 0s) {
      EXPECT_EQ(platform.logLookups(), 0);
    }
  }
}

TEST_F(BugReporterTest, TakesOnlyTheLastMatchingEntryOfAFolder) {
  const PlistDate launch = wholeSeconds(Clock::now() - 1h);
  writeRecord(record(), launch, std::nullopt);
  const std::string folder = userLogs() + "/DiagnosticReports";
  for (const char* name :
       {"FerrimoHelper_1.crash", "FerrimoHelper_2.crash", "FerrimoHelper_3.crash"})
    tmp_.touch(std::string("Users/bob/Library/Logs/DiagnosticReports/") + name);
  auto order = listingOrder(folder);
  ASSERT_EQ(order.size(), 3u);
  // Newer reports listed earlier do not count when the last one is old.
  setModified(folder + "/" + order[0], launch + 10s);
  setModified(folder + "/" + order[1], launch + 10s);
  setModified(folder + "/" + order[2], launch - 10s);
  EXPECT_EQ(KdBugReporter::checkForCrashes("FerrimoHelper", record()), std::nullopt);

  setModified(folder + "/" + order[2], launch + 1s);
  EXPECT_EQ(KdBugReporter::checkForCrashes("FerrimoHelper", record()), folder + "/" + order[2]);
}

TEST_F(BugReporterTest, OpensTheReportWithTheBundledBugReporterWhenThereIsOne) {
  const PlistDate launch = wholeSeconds(Clock::now() - 1h);
  writeRecord(record(), launch, std::nullopt);
  std::string report = tmp_.touch("Users/bob/Library/Logs/DiagnosticReports/FerrimoHelper_1.crash");
  platform_.setBundledBugReporter("/Applications/Ferrimo.app/Contents/Resources/Bug Reporter.app");

  EXPECT_EQ(KdBugReporter::checkForCrashes("FerrimoHelper", record()), report);
  auto opened = platform_.opened();
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_EQ(opened[0].file, report);
  EXPECT_EQ(opened[0].with, "/Applications/Ferrimo.app/Contents/Resources/Bug Reporter.app");
  EXPECT_NE(logText().find(" - Application crashed on last launch\n"), std::string::npos);
  EXPECT_TRUE(platform_.systemLogMessages().empty());
}

TEST_F(BugReporterTest, PreferenceDisablesTheLaunchButStillReportsTheCrash) {
  const PlistDate launch = wholeSeconds(Clock::now() - 1h);
  writeRecord(record(), launch, std::nullopt);
  std::string report = tmp_.touch("Users/bob/Library/Logs/DiagnosticReports/FerrimoHelper_1.crash");
  PlistDict global;
  global["disable-crash-reporter"] = PlistValue("1");
  tmp_.mkdir("Users/bob/Library/Preferences");
  ASSERT_TRUE(writePlistDictionaryAtomically(
      global, tmp_ / "Users/bob/Library/Preferences/com.quillfen.global.plist"));

  EXPECT_EQ(KdBugReporter::checkForCrashes("FerrimoHelper", record()), report);
  EXPECT_TRUE(platform_.opened().empty());
  EXPECT_EQ(platform_.systemLogMessages(), std::vector<std::string>{"Crash reporter disabled"});
  std::string log = logText();
  auto crashed = log.find(" - Application crashed on last launch\n");
  auto disabled = log.find(" - Crash reporter disabled\n");
  ASSERT_NE(crashed, std::string::npos) << log;
  ASSERT_NE(disabled, std::string::npos) << log;
  EXPECT_LT(crashed, disabled);
}

TEST_F(BugReporterTest, StartAndStopKeepTheRunRecord) {
  std::vector<std::string> heard;
  KdBugReporterDelegate delegate;
  delegate.applicationDidCrashWithLog = [&](const std::string& path) { heard.push_back(path); };

  // First run: nothing to report; the launch is recorded and reports of this
  // run are arranged for in the user's DiagnosticReports folder.
  const auto before = wholeSeconds(Clock::now());
  KdBugReporter::startBugReporter("FerrimoHelper", record(), &delegate);
  auto dict = readPlistDictionary(record());
  ASSERT_TRUE(dict);
  auto launch = plistDate(*dict, "launch");
  ASSERT_TRUE(launch);
  EXPECT_GE(*launch, before);
  EXPECT_LE(*launch, Clock::now());
  EXPECT_TRUE(heard.empty());
  using Handler = std::pair<std::string, std::string>;
  const std::vector<Handler> handlers = {{"FerrimoHelper", userLogs() + "/DiagnosticReports"}};
  EXPECT_EQ(platform_.crashHandlers(), handlers);

  // It ends normally: the next start finds no crash even with a new report.
  KdBugReporter::stopBugReporter(record());
  dict = readPlistDictionary(record());
  ASSERT_TRUE(dict && plistDate(*dict, "exit"));
  EXPECT_GE(*plistDate(*dict, "exit"), *launch);
  std::string early = tmp_.touch("Users/bob/Library/Logs/DiagnosticReports/FerrimoHelper_1.crash");
  setModified(early, Clock::now() + 5s);
  // The record keeps whole seconds: a launch in the second of the last exit
  // would count as a normal end of the run that follows.
  std::this_thread::sleep_until(wholeSeconds(Clock::now()) + 1s);
  KdBugReporter::startBugReporter("FerrimoHelper", record(), &delegate);
  EXPECT_TRUE(heard.empty());
  EXPECT_TRUE(platform_.opened().empty());

  // This run crashes (no stop): the next start hands the report on.
  std::remove(early.c_str());
  std::string report = tmp_.touch("Users/bob/Library/Logs/DiagnosticReports/FerrimoHelper_2.crash");
  setModified(report, Clock::now() + 5s);
  KdBugReporter::startBugReporter("FerrimoHelper", record(), &delegate);
  EXPECT_EQ(heard, std::vector<std::string>{report});
  ASSERT_EQ(platform_.opened().size(), 1u);
  EXPECT_EQ(platform_.opened()[0].file, report);

  // A delegate that does not answer is not asked; the record keeps other keys.
  KdBugReporterDelegate silent;
  writeRecord(record(), wholeSeconds(Clock::now() - 1h), std::nullopt);
  KdBugReporter::startBugReporter("FerrimoHelper", record(), &silent);
  dict = readPlistDictionary(record());
  ASSERT_TRUE(dict);
  EXPECT_TRUE(dict->count("lastStartup"));
}

TEST_F(BugReporterTest, WithoutARecordPathTheApplicationsDefaultsFileIsUsed) {
  const std::string defaults = tmp_ / "Users/bob/Library/Preferences/FerrimoHelper.plist";
  EXPECT_EQ(KdBugReporter::userDefaultsPath(), defaults);
  KdBugReporter::startBugReporter();
  auto dict = readPlistDictionary(defaults);
  ASSERT_TRUE(dict);
  EXPECT_TRUE(plistDate(*dict, "launch"));
  EXPECT_FALSE(plistDate(*dict, "exit"));
  KdBugReporter::stopBugReporter();
  dict = readPlistDictionary(defaults);
  ASSERT_TRUE(dict);
  EXPECT_TRUE(plistDate(*dict, "exit"));
}

// The child: a run of the helper that starts crash watching and then crashes.
int startThenCrash(const std::vector<std::string>& args) {
  if (args.size() != 3) return 2;
  ReporterPlatform platform(args[0]);
  platform.setRealCrashHandler(true);
  ScopedPlatform scoped(platform);
  KdBugReporter::startBugReporter("FerrimoHelper", args[1]);
  crashNow(args[2]);
  return 3;
}
KD_CHILD_MODE("start-then-crash", startThenCrash);

TEST_F(BugReporterTest, ACrashedRunIsFoundAtTheNextStart) {
  for (const char* how : {"null", "abort"}) {
    SCOPED_TRACE(how);
    TempDir tmp;
    const std::string recordPath = tmp / "Users/bob/Library/Preferences/com.quillfen.Ferrimo.plist";
    ChildOutcome out = runChild("start-then-crash", {tmp.path(), recordPath, how});
    ASSERT_TRUE(out.signalled) << "exit code " << out.exitCode;

    ReporterPlatform platform(tmp.path());
    ScopedPlatform scoped(platform);
    auto dict = readPlistDictionary(recordPath);
    ASSERT_TRUE(dict && plistDate(*dict, "launch"));
    EXPECT_FALSE(plistDate(*dict, "exit"));
    const std::string folder = tmp / "Users/bob/Library/Logs/DiagnosticReports";
    auto names = listingOrder(folder);
    ASSERT_EQ(names.size(), 1u);

    auto found = KdBugReporter::checkForCrashes(std::nullopt, recordPath);
    EXPECT_EQ(found, folder + "/" + names[0]);
    ASSERT_EQ(platform.opened().size(), 1u);
    EXPECT_EQ(platform.opened()[0].with, "com.quillfen.BugReporter");
  }
}

}  // namespace
}  // namespace kd::test
