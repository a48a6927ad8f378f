// The console user as logind and utmp report it. Each case runs in a child
// process with its own mount namespace and an empty tmpfs on /run, where the
// case writes the logind and utmp files it needs; the machine's own are never
// touched.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "common/UniqueFd.h"
#include "platform/Platform.h"
#include "support/ChildMode.h"

extern char** environ;

namespace {

constexpr int kCannotIsolate = 77;

void writeFile(const std::string& path, const std::string& contents) {
  std::ofstream(path) << contents;
}

void addUtmp(const char* line, const char* user, pid_t pid) {
  struct utmpx entry {};
  entry.ut_type = USER_PROCESS;
  entry.ut_pid = pid;
  std::strncpy(entry.ut_line, line, sizeof entry.ut_line);
  std::strncpy(entry.ut_id, line + std::max<std::ptrdiff_t>(0, std::strlen(line) - 4),
               sizeof entry.ut_id);
  std::strncpy(entry.ut_user, user, sizeof entry.ut_user);
  setutxent();
  pututxline(&entry);
  endutxent();
}

void logindSeat(const std::string& session, const std::string& sessionClass) {
  mkdir("/run/systemd", 0755);
  mkdir("/run/systemd/seats", 0755);
  mkdir("/run/systemd/sessions", 0755);
  if (session.empty()) return;
  writeFile("/run/systemd/seats/seat0", "IS_SEAT0=1\nACTIVE=" + session + "\nACTIVE_UID=65534\n");
  writeFile(
      "/run/systemd/sessions/" + session,
      "UID=65534\nUSER=nobody\nACTIVE=1\nSTATE=active\nSEAT=seat0\nCLASS=" + sessionClass + "\n");
}

pid_t endedProcess() {
  pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

int consoleUserChild(const std::vector<std::string>& args) {
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/run", "tmpfs", 0, "size=1m,mode=755") != 0) {
    std::printf("cannot isolate /run: %s", std::strerror(errno));
    return kCannotIsolate;
  }
  close(open("/run/utmp", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  const std::string scenario = args.empty() ? "" : args[0];
  const pid_t alive = getpid();
  if (scenario == "utmp") {
    addUtmp("tty2", "carol", alive);
    addUtmp("tty1", "bob", alive);
    addUtmp(":0", "alice", alive);
  } else if (scenario == "utmp-ended") {
    addUtmp(":0", "alice", endedProcess());
    addUtmp("tty1", "bob", alive);
  } else if (scenario == "utmp-greeter") {
    addUtmp(":0", "lightdm", alive);
  } else if (scenario == "utmp-remote") {
    addUtmp("pts/3", "bob", alive);
  } else if (scenario == "logind-user") {
    logindSeat("c7", "user");
    addUtmp("tty1", "bob", alive);
  } else if (scenario == "logind-greeter") {
    logindSeat("c7", "greeter");
  } else if (scenario == "logind-nobody") {
    logindSeat("", "");
    addUtmp("tty1", "bob", alive);  // logind's answer is final
  }
  std::printf("%s", kd::nativePlatform().consoleUser().value_or("(none)").c_str());
  return 0;
}
KD_CHILD_MODE("console-user", consoleUserChild);

struct ChildResult {
  int status = -1;
  std::string out;
};

ChildResult runChild(const std::string& scenario) {
  ChildResult result;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return result;
  kd::UniqueFd readEnd(fds[0]);
  kd::UniqueFd writeEnd(fds[1]);
  std::string self = kd::test::selfExecutable();
  std::vector<std::string> args = {self, "--kd-child", "console-user", scenario};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  writeEnd.reset();
  if (rc != 0) return result;
  char buf[256];
  for (ssize_t n; (n = read(readEnd.get(), buf, sizeof buf)) > 0;) result.out.append(buf, n);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace

TEST(LinuxConsoleUserRoot, LogindThenUtmpWithoutGreeters) {
  if (geteuid() != 0) GTEST_SKIP() << "a private /run needs root";
  struct Case {
    const char* scenario;
    const char* user;
  };
  const Case cases[] = {
      {"empty", "(none)"},
      {"utmp", "alice"},  // the display before the console before tty1
      {"utmp-ended", "bob"},
      {"utmp-greeter", "(none)"},
      {"utmp-remote", "(none)"},
      {"logind-user", "nobody"},
      {"logind-greeter", "(none)"},
      {"logind-nobody", "(none)"},
  };
  for (const Case& c : cases) {
    ChildResult r = runChild(c.scenario);
    if (r.status == kCannotIsolate) GTEST_SKIP() << r.out;
    ASSERT_EQ(r.status, 0) << c.scenario;
    EXPECT_EQ(r.out, c.user) << c.scenario;
  }
}
