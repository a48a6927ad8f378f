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
