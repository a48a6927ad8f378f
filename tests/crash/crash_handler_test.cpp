#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "common/Path.h"
#include "crash/CrashChild.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

std::vector<std::string> listFolder(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string n = e->d_name;
      if (n != "." && n != "..") names.push_back(n);
    }
    closedir(d);
  }
  return names;
}

// The time stamp of <app>_<YYYY-MM-DD-HHMMSS>_<host>.crash; none for any other name.
std::optional<std::string> reportStamp(const std::string& name, const std::string& app) {
  const std::string shape = "dddd-dd-dd-dddddd";
  const std::string suffix = ".crash";
  if (name.rfind(app + "_", 0) != 0) return std::nullopt;
  std::string rest = name.substr(app.size() + 1);
  if (rest.size() < shape.size() + 2 + suffix.size()) return std::nullopt;
  for (std::size_t i = 0; i < shape.size(); ++i)
    if (shape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(rest[i])) : rest[i] != '-')
      return std::nullopt;
  std::string host = rest.substr(shape.size() + 1, rest.size() - shape.size() - 1 - suffix.size());
  if (rest[shape.size()] != '_' || host.empty() || host.find_first_of("/_") != std::string::npos ||
      rest.substr(rest.size() - suffix.size()) != suffix)
    return std::nullopt;
  return rest.substr(0, shape.size());
}

std::string localStamp(std::time_t t) {
  struct tm tm {};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%d-%H%M%S", &tm);
  return buf;
}

// A zone east of UTC with a half-hour offset, so that a sign or minutes slip
// in the handler's own time formatting shows.
class ScopedZone {
 public:
  explicit ScopedZone(const char* tz) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    setenv("TZ", tz, 1);
    tzset();
  }
  ~ScopedZone() {
    if (old_.empty())
      unsetenv("TZ");
    else
      setenv("TZ", old_.c_str(), 1);
    tzset();
  }

 private:
  std::string old_;
};

TEST(CrashHandler, FatalFaultLeavesReportAndStillKillsBySignal) {
  ScopedZone zone("<+0530>-5:30");
  struct Case {
    const char* how;
    int signal;
    const char* signalName;
  };
  const Case cases[] = {
      {"null", SIGSEGV, "SIGSEGV"},
      {"overflow", SIGSEGV, "SIGSEGV"},  // needs the alternate stack
      {"abort", SIGABRT, "SIGABRT"},
      {"trap", SIGILL, "SIGILL"},
      {"thread-null", SIGSEGV, "SIGSEGV"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.how);
    TempDir tmp;
    // The folder does not exist yet: installing creates it with its parents.
    const std::string folder = tmp / "Logs/DiagnosticReports";
    const std::time_t before = std::time(nullptr);
    ChildOutcome out = runCrashingChild(folder, "Crashy App", c.how);
    const std::time_t after = std::time(nullptr);
    ASSERT_GT(out.pid, 0);
    EXPECT_TRUE(out.signalled) << "exit code " << out.exitCode;
    EXPECT_EQ(out.signal, c.signal);

    auto names = listFolder(folder);
    ASSERT_EQ(names.size(), 1u);
    auto parsed = reportStamp(names[0], "Crashy App");
    ASSERT_TRUE(parsed) << names[0];
    // Local time of the crash, formatted without the C library in the handler.
    const std::string stamp = *parsed;
    EXPECT_TRUE(stamp >= localStamp(before) && stamp <= localStamp(after))
        << stamp << " not in [" << localStamp(before) << ", " << localStamp(after) << "]";

    std::string report = readFile(folder + "/" + names[0]);
    EXPECT_NE(report.find("Process:         Crashy App [" + std::to_string(out.pid) + "]"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find(std::string("Exception Type:  ") + c.signalName + " (signal " +
                          std::to_string(c.signal) + ")"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("Date/Time:       " + stamp.substr(0, 10) + " "), std::string::npos);
    EXPECT_NE(report.find(" +0530\n"), std::string::npos) << report;
    auto bt = report.find("\nBacktrace:\n");
    ASSERT_NE(bt, std::string::npos) << report;
    EXPECT_GT(report.size(), bt + 13) << "empty backtrace";
  }
}

TEST(CrashHandler, SecondCrashInTheSameSecondKeepsTheFirstReport) {
  TempDir tmp;
  const std::string folder = tmp.mkdir("reports");
  // Retry until both crashes fall in one second, so that names would collide.
  for (int attempt = 0; attempt < 5; ++attempt) {
    for (const auto& n : listFolder(folder)) std::remove((folder + "/" + n).c_str());
    const std::time_t start = std::time(nullptr);
    runCrashingChild(folder, "Twice", "abort");
    runCrashingChild(folder, "Twice", "abort");
    if (std::time(nullptr) != start) continue;
    auto names = listFolder(folder);
    ASSERT_EQ(names.size(), 2u);
    for (const auto& n : names)
      EXPECT_TRUE(n.rfind("Twice_", 0) == 0 && path::extension(n) == "crash") << n;
    return;
  }
  GTEST_SKIP() << "two crashing children never finished within one second";
}

}  // namespace
}  // namespace kd::test
