// The mount agent, run for real: it must start the helper once at start with
// "-setup" and exactly once per new mount of removable media, never for an
// unmount or for other mounts, and report how each run ended.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
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

// Waits until the file holds `text` or the time is up.
bool waitForText(const std::string& path, const std::string& text, int ms) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (kd::test::readFile(path).find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// A tmpfs mounted where desktops put removable media (/media/<name>/CARD),
// unmounted and removed again by its owner.
class MediaMount {
 public:
  MediaMount() : dir_("/media/kd-agent-test-" + std::to_string(getpid())) {
    std::filesystem::create_directories(dir_ + "/CARD");
  }
  ~MediaMount() {
    if (mounted_) umount2(target().c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string target() const { return dir_ + "/CARD"; }
  bool mount() { return mounted_ = ::mount("tmpfs", target().c_str(), "tmpfs", 0, "size=1m") == 0; }
  bool unmount() { return !(mounted_ = ::umount(target().c_str()) != 0); }

 private:
  std::string dir_;
  bool mounted_ = false;
};

// The agent, started with a stand-in helper and its standard error in a file;
// stopped with SIGTERM by its owner.
class Agent {
 public:
  Agent(const TempDir& dir, const std::string& helper, const std::string& appDir,
        std::vector<std::string> env = {}, const std::vector<std::string>& options = {}) {
    std::vector<std::string> args{KD_AGENT_PATH, "--helper", helper,      "--app-dir",
                                  appDir,        "--lock",   dir / "lock"};
    args.insert(args.end(), options.begin(), options.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (dir / "stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    started_ = posix_spawn(&pid_, KD_AGENT_PATH, &actions, nullptr, argv.data(), envp.data()) == 0;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Agent() {
    if (started_) stop();
  }
  bool started() const { return started_; }
  // Stops the agent; its wait status.
  int stop() {
    started_ = false;
    kill(pid_, SIGTERM);
    int status = -1;
    waitpid(pid_, &status, 0);
    return status;
  }

 private:
  pid_t pid_ = -1;
  bool started_ = false;
};

}  // namespace

TEST(MountAgentRoot, RunsTheHelperAtStartAndOncePerNewRemovableMount) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  // Other programs on this machine may mount removable media meanwhile, and
  // the agent rightly runs the helper for those too: the checks below count
  // only what the agent reports for the mounts made here.
  TempDir dir;
  std::string record = dir / "runs";
  std::string appDir = dir.mkdir("Ferrimo.app");
  // A stand-in helper that records its working directory and arguments.
  std::string helper =
      dir.touch("FerrimoHelper", "#!/bin/sh\necho \"$(pwd)|$*\" >> '" + record + "'\n");
  chmod(helper.c_str(), 0755);
  std::string other = dir.mkdir("other");
  MediaMount card;
  const std::string errPath = dir / "stderr";

  Agent agent(dir, helper, appDir, {}, {"--verbose"});
  ASSERT_TRUE(agent.started());
  auto runs = waitForLines(record, 1, 5000);
  ASSERT_GE(runs.size(), 1u);
  EXPECT_EQ(runs[0], appDir + "|-setup");

  // A mount that is not removable media (here a tmpfs in a temporary folder)
  // starts nothing.
  if (mount("tmpfs", other.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount tmpfs here: " << strerror(errno);
  EXPECT_TRUE(waitForText(errPath, "new mount " + other + " is not removable media", 5000));
  umount(other.c_str());

  // At once: the card's mount may get the mount id just freed by the unmount.
  ASSERT_TRUE(card.mount()) << strerror(errno);
  const std::string started = "new removable volume " + card.target() + ": started the helper";
  const std::string ended = "new removable volume " + card.target() + ": the helper (pid ";
  EXPECT_TRUE(waitForText(errPath, ended, 5000)) << kd::test::readFile(errPath);
  runs = lines(record);
  EXPECT_NE(std::find(runs.begin() + 1, runs.end(), appDir + "|"), runs.end())
      << "a mount run has no arguments";

  ASSERT_TRUE(card.unmount());
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));

  const int status = agent.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stops cleanly on SIGTERM";
  const std::string log = kd::test::readFile(errPath);
  auto count = [&log](const std::string& text) {
    int n = 0;
    for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  };
  EXPECT_EQ(count(started), 1) << "one run for the card, none for its unmount:\n" << log;
  EXPECT_EQ(count(other + ":"), 0) << "nothing for other mounts:\n" << log;
  EXPECT_EQ(count("login: started the helper"), 1) << log;
  EXPECT_NE(log.find("login: the helper (pid "), std::string::npos) << log;
  EXPECT_EQ(log.find("<"), std::string::npos) << "no priorities outside the journal: " << log;
}

// Under systemd the agent's standard error is the journal: lines carry their
// priority, and a helper that fails or dies is reported as an error.
TEST(MountAgentRoot, ReportsHowTheHelperEndedWithJournalPriorities) {
  TempDir dir;
  std::string appDir = dir.mkdir("Ferrimo.app");
  std::string helper = dir.touch("FerrimoHelper", "#!/bin/sh\nkill -TERM $$\n");
  chmod(helper.c_str(), 0755);
  // The stream the journal would have handed over: the file that will be the
  // agent's standard error.
  std::string errPath = dir.touch("stderr");
  struct stat st {};
  ASSERT_EQ(stat(errPath.c_str(), &st), 0);
  std::string journal =
      "JOURNAL_STREAM=" + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);

  Agent agent(dir, helper, appDir, {journal});
  ASSERT_TRUE(agent.started());
  EXPECT_TRUE(waitForText(errPath, "ended with signal SIGTERM", 5000));
  agent.stop();
  const std::string log = kd::test::readFile(errPath);
  EXPECT_NE(log.find("<4>ferrimo-mount-agent: no Ferrimo application at " + appDir),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("<3>ferrimo-mount-agent: login: the helper (pid "), std::string::npos) << log;
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
