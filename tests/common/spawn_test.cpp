// The spawn helper against real programs: what the child gets (descriptors,
// environment, folder, signals, session) and what comes back when it cannot
// start.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>

#include <gtest/gtest.h>

#include "common/Spawn.h"
#include "common/UniqueFd.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace kd {
namespace {

struct Pipe {
  UniqueFd read, write;
  Pipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) == 0) {
      read.reset(fds[0]);
      write.reset(fds[1]);
    }
  }
};

std::string readAll(int fd) {
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = retryOnEintr([&] { return ::read(fd, buf, sizeof buf); })) > 0;)
    out.append(buf, static_cast<std::size_t>(n));
  return out;
}

std::string realPath(const std::string& p) {
  char buf[PATH_MAX];
  return ::realpath(p.c_str(), buf) ? buf : p;
}

TEST(Spawn, ChildGetsWhatItIsGivenAndNothingElse) {
  test::TempDir dir;
  // Open without close-on-exec, as a careless library might: the child must
  // still not see it.
  UniqueFd careless(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(careless);
  const std::vector<int> fdsBefore = test::openFds();

  // Each row's request starts with stdin and stdout on pipes; `setup` changes it.
  using Setup = std::function<void(SpawnRequest&, int in, int out)>;
  struct Case {
    const char* name;
    std::vector<std::string> argv;
    Setup setup;
    std::string input;
    int exitCode;
    std::string output;
    int error = 0;
    bool withoutOurStdin = false;
    bool withBlockedSignals = false;
  };
  const std::string sessionCheck =
      "read pid comm state ppid pgrp sid rest < /proc/self/stat; [ \"$sid\" = \"$$\" ] && echo "
      "session || echo none";
  const Case cases[] = {
      {"exit status", {"/bin/sh", "-c", "exit 3"}, nullptr, "", 3, ""},
      {"mapped stdin and stdout", {"/bin/cat"}, nullptr, "hello", 0, "hello"},
      {"only mapped descriptors, at their numbers",
       {"/bin/ls", "/proc/self/fd"},
       [](SpawnRequest& r, int, int out) {
         r.fds.push_back({5, out});
       },
       "",
       0,
       "0\n1\n2\n3\n5\n"},
      {"a source that is another entry's target is read first",
       {"/bin/echo", "hi"},
       [](SpawnRequest& r, int, int out) {
         r.fds = {{out, ChildFd::kNullDevice}, {1, out}};
       },
       "",
       0,
       "hi\n"},
      {"environment replaced",
       {"/usr/bin/env"},
       [](SpawnRequest& r, int, int) { r.environment = std::vector<std::string>{"ONLY=1"}; },
       "",
       0,
       "ONLY=1\n"},
      {"working folder",
       {"/bin/pwd"},
       [&](SpawnRequest& r, int, int) { r.workingDirectory = dir.path(); },
       "",
       0,
       realPath(dir.path()) + "\n"},
      {"our stdin closed: the child's is the null device",
       {"/bin/readlink", "/proc/self/fd/0"},
       [](SpawnRequest& r, int, int out) {
         r.fds = {{0, 0}, {1, out}};
       },
       "",
       0,
       "/dev/null\n",
       0,
       true},
      // The masks of signals 1 to 28 (the C library keeps its internal ones,
      // 32 and 33, ignored in the child).
      {"no blocked or ignored signals",
       {"/usr/bin/awk", "/^Sig(Blk|Ign)/ { print $1, substr($2, 10) }", "/proc/self/status"},
       nullptr,
       "",
       0,
       "SigBlk: 0000000\nSigIgn: 0000000\n",
       0,
       false,
       true},
      {"own session",
       {"/bin/sh", "-c", sessionCheck},
       [](SpawnRequest& r, int, int) { r.newSession = true; },
       "",
       0,
       "session\n"},
      {"our session by default", {"/bin/sh", "-c", sessionCheck}, nullptr, "", 0, "none\n"},
      {"missing program", {"/nonexistent/program"}, nullptr, "", -1, "", ENOENT},
      {"no program", {}, nullptr, "", -1, "", EINVAL},
      {"a descriptor listed twice",
       {"/bin/true"},
       [](SpawnRequest& r, int, int out) {
         r.fds.push_back({1, out});
       },
       "",
       -1,
       "",
       EINVAL},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Pipe in, out;
    ASSERT_TRUE(in.read && out.read);
    SpawnRequest request{c.argv};
    request.fds = {{0, in.read.get()}, {1, out.write.get()}};
    if (c.setup) c.setup(request, in.read.get(), out.write.get());

    UniqueFd savedStdin;
    if (c.withoutOurStdin) {
      savedStdin.reset(::fcntl(0, F_DUPFD_CLOEXEC, 3));
      ::close(0);
    }
    sigset_t usr1, previousMask;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    struct sigaction ignore {
    }, previousAction{};
    ignore.sa_handler = SIG_IGN;
    if (c.withBlockedSignals) {
      pthread_sigmask(SIG_BLOCK, &usr1, &previousMask);
      sigaction(SIGUSR2, &ignore, &previousAction);
    }
    const SpawnResult child = spawnProcess(request);
    if (c.withBlockedSignals) {
      sigaction(SIGUSR2, &previousAction, nullptr);
      pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
    }
    if (savedStdin) ::dup2(savedStdin.get(), 0);

    in.read.reset();
    out.write.reset();
    EXPECT_EQ(child.error, c.error);
    if (!child) {
      EXPECT_EQ(child.pid, -1);
      EXPECT_EQ(c.exitCode, -1);
      continue;
    }
    ::write(in.write.get(), c.input.data(), c.input.size());
    in.write.reset();
    EXPECT_EQ(readAll(out.read.get()), c.output);
    EXPECT_EQ(test::exitCode(test::waitFor(child.pid)), c.exitCode);
  }
  // The helper's own copies are gone.
  EXPECT_EQ(test::openFds(), fdsBefore);
}

}  // namespace
}  // namespace kd
