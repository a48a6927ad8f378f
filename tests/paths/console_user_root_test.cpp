// The console user as logind and utmp report it on Linux. Each case runs in a
// child with its own mount namespace and an empty tmpfs on /run, where it writes
// the logind and utmp files it needs; the machine's own stay untouched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>

#include "child_support.h"
#include "paths/KdLocalPaths.h"
#include "support/ChildMode.h"

namespace {

constexpr int kCannotIsolate = 77;

void addUtmp(const char* line, const char* user, pid_t pid) {
  struct utmpx e {};
  e.ut_type = USER_PROCESS;
  e.ut_pid = pid;
  std::strncpy(e.ut_line, line, sizeof e.ut_line);
  std::strncpy(e.ut_id, line, sizeof e.ut_id);
  std::strncpy(e.ut_user, user, sizeof e.ut_user);
  setutxent();
  pututxline(&e);
  endutxent();
}

// logind's runtime files: seat0's active session `id` of class `cls`, owned by
// "nobody"; an empty id leaves seat0 without an active session.
void logind(const std::string& id, const std::string& cls) {
  for (const char* d : {"/run/systemd", "/run/systemd/seats", "/run/systemd/sessions"})
    mkdir(d, 0755);
  if (id.empty()) return;
  std::ofstream("/run/systemd/seats/seat0") << "ACTIVE=" << id << "\nACTIVE_UID=65534\n";
  std::ofstream("/run/systemd/sessions/" + id) << "UID=65534\nSEAT=seat0\nCLASS=" << cls << "\n";
}

int consoleUserChild(const std::vector<std::string>& args) {
  if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
      mount("tmpfs", "/run", "tmpfs", 0, "size=1m,mode=755") != 0) {
    std::printf("cannot isolate /run: %s", std::strerror(errno));
    return kCannotIsolate;
  }
  close(open("/run/utmp", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  const std::string c = args.at(0);
  const pid_t alive = getpid();
  pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  if (c == "utmp") {
    addUtmp("tty2", "carol", alive);
    addUtmp("tty1", "bob", alive);
    addUtmp(":0", "alice", alive);
  } else if (c == "utmp-ended") {
    addUtmp(":0", "alice", ended);
    addUtmp("tty1", "bob", alive);
  } else if (c == "utmp-greeter") {
    addUtmp(":0", "lightdm", alive);
  } else if (c == "utmp-remote") {
    addUtmp("pts/3", "bob", alive);
  } else if (c.rfind("logind", 0) == 0) {
    logind(c == "logind-nobody" ? "" : "c7", c == "logind-greeter" ? "greeter" : "user");
    addUtmp("tty1", "bob", alive);  // not asked while logind runs
  }
  std::printf("%s", KdLocalPaths::currentConsoleUser().value_or("(none)").c_str());
  return 0;
}
KD_CHILD_MODE("console-user", consoleUserChild);

}  // namespace

TEST(ConsoleUserRoot, LogindThenUtmpWithoutGreeters) {
  if (geteuid() != 0) GTEST_SKIP() << "a private /run needs root";
  const std::pair<const char*, const char*> cases[] = {
      {"empty", "(none)"},          {"utmp", "alice"},  // display, then console, then tty1
      {"utmp-ended", "bob"},        {"utmp-greeter", "(none)"},
      {"utmp-remote", "(none)"},    {"logind-user", "nobody"},
      {"logind-greeter", "(none)"}, {"logind-nobody", "(none)"},
  };
  for (const auto& [scenario, user] : cases) {
    kd::test::ChildRun r = kd::test::runChildMode("console-user", {scenario});
    if (r.status == kCannotIsolate) GTEST_SKIP() << r.out;
    ASSERT_EQ(r.status, 0) << scenario;
    EXPECT_EQ(r.out, user) << scenario;
  }
}
