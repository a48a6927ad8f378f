// The mount agent, run for real: it must start the helper once at start with
// "-setup" and exactly once per new mount, never for an unmount.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include "support/TempDir.h"

using kd::test::TempDir;

namespace {

std::vector<std::string> lines(const std::string& path) {
  std::vector<std::string> out;
  std::istringstream in(kd::test::readFile(path));
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// Waits until the file has at least `n` lines or the time is up.
std::vector<std::string> waitForLines(const std::string& path, std::size_t n, int ms) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  auto got = lines(path);
  while (got.size() < n && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    got = lines(path);
  }
  return got;
}

}  // namespace

TEST(MountAgentRoot, RunsTheHelperOnceAtStartAndOncePerNewMount) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  TempDir dir;
  std::string record = dir / "runs";
  std::string appDir = dir.mkdir("Ferrimo.app");
  // A stand-in helper that records its working directory and arguments.
  std::string helper =
      dir.touch("FerrimoHelper", "#!/bin/sh\necho \"$(pwd)|$*\" >> '" + record + "'\n");
  chmod(helper.c_str(), 0755);
  std::string card = dir.mkdir("card");

  pid_t agent = 0;
  std::vector<std::string> args{KD_AGENT_PATH, "--helper", helper,      "--app-dir",
                                appDir,        "--lock",   dir / "lock"};
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  ASSERT_EQ(posix_spawn(&agent, KD_AGENT_PATH, nullptr, nullptr, argv.data(), environ), 0);

  auto runs = waitForLines(record, 1, 5000);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0], appDir + "|-setup");

  if (mount("tmpfs", card.c_str(), "tmpfs", 0, "size=1m") != 0) {
    kill(agent, SIGTERM);
    waitpid(agent, nullptr, 0);
    GTEST_SKIP() << "cannot mount tmpfs here: " << strerror(errno);
  }
  runs = waitForLines(record, 2, 5000);
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1], appDir + "|");

  ASSERT_EQ(umount(card.c_str()), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(lines(record).size(), 2u) << "an unmount starts nothing";

  kill(agent, SIGTERM);
  int status = 0;
  waitpid(agent, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stops cleanly on SIGTERM";
}

// The agent's lock outside a runtime folder lies in a private folder of the
// user below /tmp; a folder someone else made (or a link) there is refused,
// so nobody can keep another user's agent from starting or steer its lock.
TEST(MountAgentRoot, LockFolderBelowTmpMustBeTheUsersOwn) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a folder for another user";
  const std::string folder = "/tmp/kd-agent-lock-" + std::to_string(getpid());
  const std::string lock = folder + "/agent.lock";
  TempDir dir;
  auto runAgent = [&](bool stopSoon) {
    std::vector<std::string> args{KD_AGENT_PATH, "--helper", "/bin/true", "--app-dir",
                                  dir.path(),    "--lock",   lock,        "--no-setup"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawn(&pid, KD_AGENT_PATH, nullptr, nullptr, argv.data(), environ) != 0) return -1;
    if (stopSoon) {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      kill(pid, SIGTERM);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };

  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
  EXPECT_EQ(runAgent(false), 1) << "a folder of another user";
  rmdir(folder.c_str());
  ASSERT_EQ(symlink(dir.path().c_str(), folder.c_str()), 0);
  EXPECT_EQ(runAgent(false), 1) << "a link";
  unlink(folder.c_str());

  EXPECT_EQ(runAgent(true), 0) << "its own folder, made private";
  struct stat st {};
  ASSERT_EQ(lstat(folder.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  unlink(lock.c_str());
  rmdir(folder.c_str());
}
