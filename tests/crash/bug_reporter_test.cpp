#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "crash/KdBugReporter.h"
#include "log/KdLog.h"
#include "support/ChildMode.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

using namespace std::chrono;
using Handler = std::pair<std::string, std::string>;

// Installed for its lifetime: macOS answers with the homes and /Library below
// `root`, and the bug-reporter launch recorded instead of made. The test
// thread's, but for the log folder lookups.
class ReporterPlatform : public FakeMacPlatform {
 public:
  explicit ReporterPlatform(const std::string& root) {
    setHomesRoot(root + "/Users");
    setSearchPath(DirectoryKind::Library, LocalDomainMask, {root + "/Library"});
    setPlatformForTesting(this);
  }
  // The log's writer thread may still be asking for the log folder.
  ~ReporterPlatform() override { KdLog::finishWriting(), setPlatformForTesting(nullptr); }

  std::vector<Handler> opened;      // (file, bundle identifier)
  std::atomic<int> logLookups = 0;  // every crash-report folder starts with one

  std::vector<std::string> searchPathForDirectories(DirectoryKind kind, unsigned mask) override {
    logLookups += kind == DirectoryKind::Logs;
    return FakeMacPlatform::searchPathForDirectories(kind, mask);
  }
  Desktop& desktop() override { return desktop_; }

 private:
  struct RecordingDesktop : ForwardingDesktop {
    RecordingDesktop(Desktop& target, std::vector<Handler>& record)
        : ForwardingDesktop(target), opened(record) {}
    bool openFileWithBundleIdentifier(const std::string& file, std::string_view id) override {
      return opened.emplace_back(file, id), true;
    }
    std::vector<Handler>& opened;  // the platform's
  };
  RecordingDesktop desktop_{FakeMacPlatform::desktop(), opened};
};

const std::string kUserDiag = "Users/bob/Library/Logs/DiagnosticReports";
const std::string kRecord = "Users/bob/Library/Preferences/com.quillfen.Ferrimo.plist";
const std::string kReporterId = "com.quillfen.BugReporter";

TEST(BugReporter, FindsTheReportThatProvesACrashAndOpensIt) {
  const PlistDate launch = floor<seconds>(system_clock::now() - 1h);
  struct Case {
    const char* what;
    std::optional<seconds> exit;  // minus "launch"
    // Reports below the temporary folder, with modification date minus "launch".
    std::vector<std::pair<std::string, seconds>> reports;
    std::optional<std::string> expected;
    std::optional<PlistValue> disable = {};  // the "disable-crash-reporter" preference
    bool disabled = false;
  };
  const std::string ul = "Users/bob/Library/Logs/", ud = kUserDiag + "/",
                    report = ud + "FerrimoHelper_1.crash";
  // clang-format off
  const Case cases[] = {
      {"exit before launch", -5s, {{report, 10s}}, report},
      {"exit after launch", 5s, {{report, 10s}}, {}},
      {"exit at launch", 0s, {{report, 10s}}, {}},
      {"report before launch", {}, {{report, -10s}}, {}},
      {"report at launch", {}, {{report, 0s}}, {}},
      {"launch only, case ignored", {}, {{ud + "ferrimohelper_x.crash", 1s}}, ud + "ferrimohelper_x.crash"},
      {"name then _", {}, {{ud + "FerrimoHelperX_1.crash", 1s}, {ud + "FerrimoHelper.crash", 1s}}, {}},
      {"CrashReporter first", {}, {{ud + "FerrimoHelper_b", 1s}, {ul + "CrashReporter/FerrimoHelper_a", 1s}}, ul + "CrashReporter/FerrimoHelper_a"},
      {"old report, next folder", {}, {{ul + "CrashReporter/FerrimoHelper_a", -1s}, {"Library/Logs/CrashReporter/FerrimoHelper_c", 1s}}, "Library/Logs/CrashReporter/FerrimoHelper_c"},
      {"user before machine", {}, {{"Library/Logs/CrashReporter/FerrimoHelper_c", 1s}, {ud + "FerrimoHelper_b", 1s}}, ud + "FerrimoHelper_b"},
      {"machine's last", {}, {{"Library/Logs/DiagnosticReports/FerrimoHelper_d", 1s}}, "Library/Logs/DiagnosticReports/FerrimoHelper_d"},
      {"\"0\" enables", {}, {{report, 10s}}, report, PlistValue("0")},
      {"\"1\" disables", {}, {{report, 10s}}, report, PlistValue("1"), true},
      {"true disables", {}, {{report, 10s}}, report, PlistValue(true), true},
  };
  // clang-format on
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir tmp;
    ReporterPlatform platform(tmp.path());
    PlistDict record{{"launch", PlistValue(launch)}};
    if (c.exit) record["exit"] = PlistValue(launch + *c.exit);
    ASSERT_TRUE(writePlistDictionaryAtomically(record, tmp.touch(kRecord)));
    if (c.disable)
      writePlistDictionaryAtomically(
          {{"disable-crash-reporter", *c.disable}},
          tmp.touch(path::deletingLastComponent(kRecord) + "/com.quillfen.global.plist"));
    for (const auto& [file, offset] : c.reports)
      std::filesystem::last_write_time(tmp.touch(file), file_clock::from_sys(launch + offset));

    auto found = KdBugReporter::checkForCrashes("FerrimoHelper", tmp / kRecord);

    EXPECT_EQ(found, c.expected ? std::optional(tmp / *c.expected) : std::nullopt);
    EXPECT_EQ(platform.opened, (found && !c.disabled ? std::vector<Handler>{{*found, kReporterId}}
                                                     : std::vector<Handler>{}));
    // A run that ended normally is settled by the record alone.
    EXPECT_EQ(platform.logLookups == 0, c.exit >= 0s);
    EXPECT_EQ(platform.systemLogMessages(),
              std::vector<std::string>(c.disabled, "Crash reporter disabled"));
  }
}

// --- A run that really crashes ----------------------------------------------

// Not inlined and not a tail call, so that every level takes stack.
[[gnu::noinline]] int recurse(int depth) {
  volatile char pad[1024];
  pad[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : recurse(depth + 1) + pad[0];  // the stack ends first
}

// The null store is the point: no sanitizer report before the fault.
__attribute__((no_sanitize_undefined)) void storeThroughNull() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

// The helper's start (with the real crash handler), then a crash as args[1] says.
int startThenCrash(const std::vector<std::string>& args) {
  ReporterPlatform platform(args.at(0));
  KdBugReporter::startBugReporter("FerrimoHelper", args[0] + "/" + kRecord);
  struct rlimit noCore {};
  setrlimit(RLIMIT_CORE, &noCore);
  if (args.at(1) == "null") storeThroughNull();
  if (args[1] == "overflow") recurse(0);  // needs the alternate signal stack
  if (args[1] == "abort") std::abort();
  if (args[1] == "thread") std::thread(storeThroughNull).join();
  return 3;
}
KD_CHILD_MODE("crash", startThenCrash);

TEST(BugReporter, ACrashedRunLeavesAReportThatTheNextCheckFinds) {
  for (const auto& [how, signal] : {std::pair{"null", SIGSEGV}, std::pair{"overflow", SIGSEGV},
                                    std::pair{"abort", SIGABRT}, std::pair{"thread", SIGSEGV}}) {
    SCOPED_TRACE(how);
    TempDir tmp;
    KdTaskEx::TaskHandle child;
    KdTaskEx::runTask(selfExecutable(), {"--kd-child", "crash", tmp.path(), how}, &child);
    ASSERT_EQ(child->outcome().kind, KdTask::Outcome::Kind::Signalled) << child->outcome().value;
    EXPECT_EQ(child->outcome().value, signal);

    ReporterPlatform platform(tmp.path());
    const auto report = KdBugReporter::checkForCrashes("FerrimoHelper", tmp / kRecord);
    ASSERT_TRUE(report);
    EXPECT_EQ(path::deletingLastComponent(*report), tmp / kUserDiag);
    EXPECT_NE(readFile(*report).find("(signal " + std::to_string(signal) + ")"), std::string::npos);
    EXPECT_EQ(platform.opened, (std::vector<Handler>{{*report, kReporterId}}));
  }
}

}  // namespace
}  // namespace kd::test
