#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "crash/KdBugReporter.h"
#include "log/KdLog.h"
#include "log/KdLogTesting.h"
#include "support/ChildMode.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

extern char** environ;

namespace kd::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::system_clock;
using Handler = std::pair<std::string, std::string>;

// macOS answers with the homes and /Library below `root`, a bundle named
// "FerrimoHelper", and the bug-reporter launch recorded instead of made.
// Test thread only.
class ReporterPlatform : public FakeMacPlatform {
 public:
  explicit ReporterPlatform(const std::string& root, bool realCrashHandler = false)
      : realCrashHandler_(realCrashHandler) {
    setHomesRoot(root + "/Users");
    setSearchPath(DirectoryKind::Library, LocalDomainMask, {root + "/Library"});
  }

  std::optional<std::string> bundledBugReporter;
  std::vector<Handler> opened;  // (file, application path or bundle identifier)
  std::vector<Handler> crashHandlers;
  int logLookups = 0;  // every crash-report folder starts with one

  BundleInfo mainBundle() override { return {std::nullopt, std::nullopt, "FerrimoHelper", {}}; }
  std::vector<std::string> searchPathForDirectories(DirectoryKind kind, unsigned mask) override {
    logLookups += kind == DirectoryKind::Logs;
    return FakeMacPlatform::searchPathForDirectories(kind, mask);
  }
  std::optional<std::string> bundledApplication(const std::string& name) override {
    return name == "Bug Reporter" ? bundledBugReporter : std::nullopt;
  }
  bool openFileWithApplication(const std::string& file, const std::string& app) override {
    opened.emplace_back(file, app);
    return true;
  }
  bool openFileWithBundleIdentifier(const std::string& file, std::string_view id) override {
    opened.emplace_back(file, std::string(id));
    return true;
  }
  void installCrashHandler(const std::string& appName, const std::string& folder) override {
    if (realCrashHandler_) return FakeMacPlatform::installCrashHandler(appName, folder);
    crashHandlers.emplace_back(appName, folder);
  }

 private:
  bool realCrashHandler_;
};

const std::string kUserDiag = "Users/bob/Library/Logs/DiagnosticReports";
const std::string kUserCrash = "Users/bob/Library/Logs/CrashReporter";
const std::string kLocalDiag = "Library/Logs/DiagnosticReports";
const std::string kLocalCrash = "Library/Logs/CrashReporter";
const std::string kRecord = "Users/bob/Library/Preferences/com.quillfen.Ferrimo.plist";

void writeRecord(const std::string& path, std::optional<PlistDate> launch,
                 std::optional<PlistDate> exit = {}) {
  std::filesystem::create_directories(path::deletingLastComponent(path));
  PlistDict record{{"lastStartup", PlistValue(Clock::now())}};
  if (launch) record["launch"] = PlistValue(*launch);
  if (exit) record["exit"] = PlistValue(*exit);
  ASSERT_TRUE(writePlistDictionaryAtomically(record, path));
}

void setModified(const std::string& path, PlistDate when) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
  struct timespec t[2] = {{ns / 1000000000, ns % 1000000000}, {ns / 1000000000, ns % 1000000000}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), t, 0), 0) << path;
}

std::vector<std::string> listFolder(const std::string& folder) {
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
  void SetUp() override { freshLog(); }
  static void freshLog() {
    KdLogTestAccess::reset();
    KdLog::createNewLog("FerrimoHelper");
  }
  void TearDown() override { KdLogTestAccess::reset(); }
  std::string logText() const {
    KdLog::finishWriting();
    return readFile(tmp_ / "Users/bob/Library/Logs/Quillfen/FerrimoHelper.1.log");
  }

  TempDir tmp_;
  ReporterPlatform platform_{tmp_.path()};
  ScopedPlatform scoped_{platform_};
};

TEST_F(BugReporterTest, FindsTheReportThatProvesACrash) {
  const PlistDate launch = std::chrono::floor<std::chrono::seconds>(Clock::now() - 1h);
  struct Report {
    std::string path;             // below the temporary folder
    std::chrono::seconds offset;  // modification date minus "launch"
  };
  struct Case {
    const char* what;
    std::optional<std::chrono::seconds> exit;  // minus "launch"
    std::vector<Report> reports;
    std::optional<std::string> expected;
    std::optional<std::string> appName = "FerrimoHelper";
  };
  const std::string report = kUserDiag + "/FerrimoHelper_2020-01-01-120000_Mac.crash";
  const std::string ud = kUserDiag + "/", uc = kUserCrash + "/", lc = kLocalCrash + "/";
  // clang-format off
  const Case cases[] = {
      {"launch only", {}, {{report, 10s}}, report},
      {"name from the main bundle", {}, {{report, 10s}}, report, std::nullopt},
      {"exit before launch", -5s, {{report, 10s}}, report},
      {"exit after launch", 5s, {{report, 10s}}, {}},
      {"exit at launch", 0s, {{report, 10s}}, {}},
      {"report before launch", {}, {{report, -10s}}, {}},
      {"report at launch", {}, {{report, 0s}}, {}},
      {"case ignored", {}, {{ud + "ferrimohelper_x.crash", 1s}}, ud + "ferrimohelper_x.crash"},
      {"name then _", {}, {{ud + "FerrimoHelperX_1.crash", 1s}, {ud + "FerrimoHelper.crash", 1s}}, {}},
      {"CrashReporter first", {}, {{ud + "FerrimoHelper_b", 1s}, {uc + "FerrimoHelper_a", 1s}}, uc + "FerrimoHelper_a"},
      {"old report, next folder", {}, {{uc + "FerrimoHelper_a", -1s}, {lc + "FerrimoHelper_c", 1s}}, lc + "FerrimoHelper_c"},
      {"user before machine", {}, {{lc + "FerrimoHelper_c", 1s}, {ud + "FerrimoHelper_b", 1s}}, ud + "FerrimoHelper_b"},
      {"machine's last", {}, {{kLocalDiag + "/FerrimoHelper_d", 1s}}, kLocalDiag + "/FerrimoHelper_d"},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir tmp;
    ReporterPlatform platform(tmp.path());
    ScopedPlatform scoped(platform);
    writeRecord(tmp / kRecord, launch, c.exit ? std::optional(launch + *c.exit) : std::nullopt);
    for (const auto& r : c.reports) setModified(tmp.touch(r.path), launch + r.offset);
    platform.logLookups = 0;

    auto found = KdBugReporter::checkForCrashes(c.appName, tmp / kRecord);

    EXPECT_EQ(found, c.expected ? std::optional(tmp / *c.expected) : std::nullopt);
    std::vector<Handler> opened;
    if (found) opened.emplace_back(*found, "com.quillfen.BugReporter");
    EXPECT_EQ(platform.opened, opened);
    // A run that ended normally is settled by the record alone.
    if (c.exit >= 0s) {
      EXPECT_EQ(platform.logLookups, 0);
    }
  }
}

TEST_F(BugReporterTest, LaunchesTheBugReporterUnlessThePreferenceSaysNo) {
  const std::string bundled = "/Applications/Ferrimo.app/Contents/Resources/Bug Reporter.app";
  struct Case {
    std::optional<std::string> bundled;
    std::optional<PlistValue> disable;
    std::optional<std::string> openedWith;
  };
  const Case cases[] = {
      {bundled, {}, bundled},
      {{}, PlistValue("0"), "com.quillfen.BugReporter"},
      {bundled, PlistValue("1"), {}},
      {{}, PlistValue(true), {}},
  };
  for (const auto& c : cases) {
    freshLog();
    TempDir& tmp = tmp_;
    platform_.opened.clear();
    std::filesystem::remove_all(tmp / "Users/bob/Library/Preferences");
    platform_.bundledBugReporter = c.bundled;
    writeRecord(tmp / kRecord, Clock::now() - 1h);
    const std::string report = tmp.touch(kUserDiag + "/FerrimoHelper_1.crash");
    if (c.disable)
      writePlistDictionaryAtomically(
          {{"disable-crash-reporter", *c.disable}},
          tmp / "Users/bob/Library/Preferences/com.quillfen.global.plist");
    const std::size_t consoleBefore = platform_.systemLogMessages().size();

    EXPECT_EQ(KdBugReporter::checkForCrashes("FerrimoHelper", tmp / kRecord), report);

    std::vector<Handler> opened;
    if (c.openedWith) opened.emplace_back(report, *c.openedWith);
    EXPECT_EQ(platform_.opened, opened);
    auto console = platform_.systemLogMessages();
    std::vector<std::string> added(console.begin() + consoleBefore, console.end());
    std::string log = logText();
    EXPECT_NE(log.find(" - Application crashed on last launch\n"), std::string::npos) << log;
    const bool disabled = !c.openedWith;
    EXPECT_EQ(added, disabled ? std::vector<std::string>{"Crash reporter disabled"}
                              : std::vector<std::string>{});
    EXPECT_EQ(log.find(" - Crash reporter disabled\n") != std::string::npos, disabled) << log;
  }
}

TEST_F(BugReporterTest, StartAndStopKeepTheRunRecord) {
  // Without a record path the record is the application's own defaults file.
  const std::string defaults = tmp_ / "Users/bob/Library/Preferences/FerrimoHelper.plist";
  ASSERT_EQ(KdBugReporter::userDefaultsPath(), defaults);
  std::vector<std::string> heard;
  KdBugReporterDelegate delegate{[&](const std::string& path) { heard.push_back(path); }};
  const std::string report = tmp_.touch(kUserDiag + "/FerrimoHelper_1.crash");
  setModified(report, Clock::now() + 1h);

  // A first run finds no record, arranges for this run's reports, records "launch".
  KdBugReporter::startBugReporterWithDelegate(&delegate);
  auto launch = plistDate(readPlistDictionaryOrEmpty(defaults), "launch");
  ASSERT_TRUE(launch);
  EXPECT_GT(*launch, Clock::now() - 5s);
  EXPECT_EQ(
      platform_.crashHandlers,
      (std::vector<Handler>{{"FerrimoHelper", tmp_ / "Users/bob/Library/Logs/DiagnosticReports"}}));

  // It ends normally: no crash, whatever reports there are.
  KdBugReporter::stopBugReporter();
  auto exit = plistDate(readPlistDictionaryOrEmpty(defaults), "exit");
  ASSERT_TRUE(exit);
  EXPECT_GE(*exit, *launch);
  EXPECT_EQ(KdBugReporter::checkForCrashes(), std::nullopt);

  // A run that did not end: the next start tells the delegate, after "launch".
  writeRecord(defaults, Clock::now() - 1h);
  KdBugReporter::startBugReporterWithDelegate(&delegate);
  EXPECT_EQ(heard, std::vector<std::string>{report});
  EXPECT_GT(*plistDate(readPlistDictionaryOrEmpty(defaults), "launch"), Clock::now() - 5s);
  EXPECT_EQ(readPlistDictionaryOrEmpty(defaults).count("lastStartup"), 1u);

  // A delegate that does not answer is not asked.
  writeRecord(defaults, Clock::now() - 1h);
  KdBugReporterDelegate silent;
  KdBugReporter::startBugReporterWithDelegate(&silent);
  EXPECT_EQ(platform_.opened.size(), 2u);
}

// --- A run that really crashes ----------------------------------------------

// Not inlined and not a tail call, so that every level takes stack.
[[gnu::noinline]] int recurse(int depth) {
  if (depth < 0) return 0;  // never: the stack ends first
  volatile char pad[1024];
  pad[0] = static_cast<char>(depth);
  return recurse(depth + 1) + pad[0];
}

// The null store is the point: no sanitizer report before the fault.
__attribute__((no_sanitize_undefined)) void storeThroughNull() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

// The helper's start, then a crash the way args[1] says.
int startThenCrash(const std::vector<std::string>& args) {
  ReporterPlatform platform(args.at(0), /*realCrashHandler=*/true);
  ScopedPlatform scoped(platform);
  KdBugReporter::startBugReporter("FerrimoHelper", args[0] + "/" + kRecord);
  struct rlimit noCore {};
  setrlimit(RLIMIT_CORE, &noCore);
  const std::string& how = args.at(1);
  if (how == "null") storeThroughNull();
  if (how == "overflow") recurse(0);  // needs the alternate signal stack
  if (how == "abort") std::abort();
  if (how == "trap") __builtin_trap();
  if (how == "thread") std::thread(storeThroughNull).join();
  return 3;
}
KD_CHILD_MODE("start-then-crash", startThenCrash);

std::string localStamp(std::time_t t) {
  struct tm tm {};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d-%H%M%S", &tm);
  return buf;
}

TEST_F(BugReporterTest, ACrashedRunLeavesAReportThatTheNextStartFinds) {
  // A zone east of UTC by a half hour shows a sign or minutes slip in the
  // handler's own time formatting.
  struct Zone {
    Zone() { setenv("TZ", "<+0530>-5:30", 1), tzset(); }
    ~Zone() { unsetenv("TZ"), tzset(); }
  } zone;
  char hostBuf[HOST_NAME_MAX + 1] = {};
  gethostname(hostBuf, sizeof hostBuf - 1);
  const std::string host = std::string(hostBuf).substr(0, std::string(hostBuf).find('.'));
  struct Case {
    const char* how;
    int signal;
    const char* name;
  };
  for (const Case& c : {Case{"null", SIGSEGV, "SIGSEGV"}, Case{"overflow", SIGSEGV, "SIGSEGV"},
                        Case{"abort", SIGABRT, "SIGABRT"}, Case{"trap", SIGILL, "SIGILL"},
                        Case{"thread", SIGSEGV, "SIGSEGV"}}) {
    SCOPED_TRACE(c.how);
    TempDir tmp;
    std::string self = selfExecutable();
    std::vector<std::string> args = {self, "--kd-child", "start-then-crash", tmp.path(), c.how};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::time_t before = std::time(nullptr);
    pid_t pid = -1;
    ASSERT_EQ(posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    const std::time_t after = std::time(nullptr);
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << WEXITSTATUS(status);
    EXPECT_EQ(WTERMSIG(status), c.signal);

    // <name>_<YYYY-MM-DD-HHMMSS>_<host>.crash, in local time.
    auto names = listFolder(tmp / kUserDiag);
    ASSERT_EQ(names.size(), 1u);
    const std::string& name = names[0];
    ASSERT_GT(name.size(), 31u) << name;
    const std::string stamp = name.substr(14, 17);
    EXPECT_EQ(name, "FerrimoHelper_" + stamp + "_" + host + ".crash");
    EXPECT_TRUE(stamp >= localStamp(before) && stamp <= localStamp(after)) << stamp;
    const std::string text = readFile(tmp / kUserDiag + "/" + name);
    for (const std::string& line :
         std::vector<std::string>{"Process:         FerrimoHelper [" + std::to_string(pid) + "]\n",
                                  "Exception Type:  " + std::string(c.name) + " (signal " +
                                      std::to_string(c.signal) + ")",
                                  " " + stamp.substr(0, 10) + " ", " +0530\n", "\nBacktrace:\n/"})
      EXPECT_NE(text.find(line), std::string::npos) << line << " not in\n" << text;

    ReporterPlatform platform(tmp.path());
    ScopedPlatform scoped(platform);
    EXPECT_EQ(KdBugReporter::checkForCrashes(std::nullopt, tmp / kRecord),
              tmp / kUserDiag + "/" + name);
    EXPECT_EQ(platform.opened.size(), 1u);
  }
}

}  // namespace
}  // namespace kd::test
