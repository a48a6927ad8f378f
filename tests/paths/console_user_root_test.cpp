// The console user as logind and utmp report it on Linux. Each case runs in a
// child with its own mount namespace and an empty tmpfs on /run, where it writes
// the logind and utmp files it needs; the machine's own stay untouched.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmpx.h>

#include <cstring>
#include <fstream>

#include "paths/KdLocalPaths.h"

namespace {

bool isolateRun() {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", "/run", "tmpfs", 0, "size=1m,mode=755") == 0;
}

// Writes one record per argument into a private /run, then reports the
// console user on standard error and exits. "<line> <user>" is a utmp session
// of this process, "!<line> <user>" one whose process has ended, "@<class>"
// logind with seat0's active session of that class for "nobody", and "@"
// logind with no active session on seat0.
void reportConsoleUser(const std::vector<std::string>& records) {
  if (!isolateRun()) std::exit(1);
  close(open("/run/utmp", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  waitpid(ended, nullptr, 0);
  for (const std::string& r : records) {
    if (r[0] == '@') {
      for (const char* d : {"/run/systemd", "/run/systemd/seats", "/run/systemd/sessions"})
        mkdir(d, 0755);
      if (r.size() == 1) continue;
      std::ofstream("/run/systemd/seats/seat0") << "ACTIVE=c7\nACTIVE_UID=65534\n";
      std::ofstream("/run/systemd/sessions/c7")
          << "UID=65534\nSEAT=seat0\nCLASS=" << r.substr(1) << "\n";
      continue;
    }
    const bool dead = r[0] == '!';
    const std::string line = r.substr(dead, r.find(' ') - dead);
    struct utmpx e {};
    e.ut_type = USER_PROCESS;
    e.ut_pid = dead ? ended : getpid();
    std::strncpy(e.ut_line, line.c_str(), sizeof e.ut_line);
    std::strncpy(e.ut_id, line.c_str(), sizeof e.ut_id);
    std::strncpy(e.ut_user, r.c_str() + r.find(' ') + 1, sizeof e.ut_user);
    setutxent();
    pututxline(&e);
    endutxent();
  }
  std::fprintf(stderr, "console user: %s.",
               KdLocalPaths::currentConsoleUser().value_or("-").c_str());
  std::exit(0);
}

}  // namespace

TEST(ConsoleUserRoot, LogindThenUtmpWithoutGreeters) {
  const pid_t probe = fork();
  if (probe == 0) _exit(isolateRun() ? 0 : 1);
  int status = -1;
  waitpid(probe, &status, 0);
  if (status != 0) GTEST_SKIP() << "cannot mount a private /run (needs root)";
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{}, "-"},
      {{"tty2 carol", "tty1 bob", ":0 alice"}, "alice"},  // display, then console, then tty1
      {{"!:0 alice", "tty1 bob"}, "bob"},
      {{":0 lightdm"}, "-"},
      {{"pts/3 bob"}, "-"},
      // utmp is not asked while logind runs
      {{"@user", "tty1 bob"}, "nobody"},
      {{"@greeter", "tty1 bob"}, "-"},
      {{"@", "tty1 bob"}, "-"},
  };
  for (const auto& [records, user] : cases) {
    EXPECT_EXIT(reportConsoleUser(records), testing::ExitedWithCode(0),
                "console user: " + std::string(user) + "\\.")
        << testing::PrintToString(records);
  }
}
