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
#include <cstdio>
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
  explicit MediaMount(const std::string& name = "CARD")
      : dir_("/media/kd-agent-test-" + std::to_string(getpid()) +
             (name == "CARD" ? "" : "-" + name)),
        name_(name) {
    std::filesystem::create_directories(dir_ + "/" + name_);
  }
  ~MediaMount() {
    if (mounted_) umount2(target().c_str(), MNT_DETACH);
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string target() const { return dir_ + "/" + name_; }
  bool mount() { return mounted_ = ::mount("tmpfs", target().c_str(), "tmpfs", 0, "size=1m") == 0; }
  bool unmount() { return !(mounted_ = ::umount(target().c_str()) != 0); }

 private:
  std::string dir_, name_;
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

namespace {

int countIn(const std::string& text, const std::string& what) {
  int n = 0;
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Waits until the file holds `text` at least `n` times or the time is up.
bool waitForCount(const std::string& path, const std::string& text, int n, int ms) {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (countIn(kd::test::readFile(path), text) < n) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace

// Fifty mounts in quick succession, two card slots taking turns, each
// unmounted as soon as the agent has started its helper run (the run still
// going): one run per mount, none for the unmounts; then a burst of mounts and
// unmounts faster than the agent can look, after which it still answers the
// next mount. Nothing hangs, and every run started is reported ended.
TEST(MountAgentRoot, FiftyQuickMountsStartOneRunEach) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  TempDir dir;
  const std::string record = dir / "runs";
  const std::string appDir = dir.mkdir("Ferrimo.app");
  // A helper slower than the unmount that follows its start.
  const std::string helper =
      dir.touch("FerrimoHelper", "#!/bin/sh\necho \"$*\" >> '" + record + "'\nsleep 0.05\n");
  chmod(helper.c_str(), 0755);
  MediaMount slots[2] = {MediaMount("A"), MediaMount("B")};
  const std::string errPath = dir / "stderr";
  Agent agent(dir, helper, appDir, {}, {"--verbose"});
  ASSERT_TRUE(agent.started());
  ASSERT_GE(waitForLines(record, 1, 5000).size(), 1u);
  auto startedFor = [](const MediaMount& m) {
    return "new removable volume " + m.target() + ": started the helper";
  };
  auto runsFor = [&](const MediaMount& m) {
    return countIn(kd::test::readFile(errPath), startedFor(m));
  };

  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    MediaMount& card = slots[i % 2];
    ASSERT_TRUE(card.mount()) << strerror(errno);
    ASSERT_TRUE(waitForCount(errPath, startedFor(card), i / 2 + 1, 10000))
        << "mount " << i + 1 << " started no run:\n"
        << kd::test::readFile(errPath);
    ASSERT_TRUE(card.unmount()) << strerror(errno);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  RecordProperty("seconds_for_50_mounts", std::to_string(seconds));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(runsFor(slots[0]), 25) << kd::test::readFile(errPath);
  EXPECT_EQ(runsFor(slots[1]), 25) << kd::test::readFile(errPath);

  // One slot, remounted the moment its run started: the unmount and the next
  // mount may come in one reading of the table, with the same mount id and
  // device; the kernel's never-reused mount id tells them apart.
  struct statx root {};
  if (::statx(AT_FDCWD, "/", 0, 0x00004000U /* STATX_MNT_ID_UNIQUE */, &root) == 0 &&
      (root.stx_mask & 0x00004000U)) {
    const int first = runsFor(slots[0]);
    for (int i = 1; i <= 20; ++i) {
      ASSERT_TRUE(slots[0].mount()) << strerror(errno);
      ASSERT_TRUE(waitForCount(errPath, startedFor(slots[0]), first + i, 10000))
          << "remount " << i << " started no run:\n"
          << kd::test::readFile(errPath);
      ASSERT_TRUE(slots[0].unmount()) << strerror(errno);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(runsFor(slots[0]), first + 20);
  } else {
    std::printf("note: no never-reused mount ids on this kernel; same-slot remounts not tried\n");
  }

  // A burst: mounts that may be gone before the agent reads the table start
  // at most one run each.
  const int beforeBurst = runsFor(slots[0]);
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(slots[0].mount()) << strerror(errno);
    ASSERT_TRUE(slots[0].unmount()) << strerror(errno);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_LE(runsFor(slots[0]), beforeBurst + 20);
  // And the agent still answers.
  const int before = runsFor(slots[1]);
  ASSERT_TRUE(slots[1].mount()) << strerror(errno);
  EXPECT_TRUE(waitForCount(errPath, startedFor(slots[1]), before + 1, 10000))
      << kd::test::readFile(errPath);
  ASSERT_TRUE(slots[1].unmount());
  // Every run the agent started is one the helper made (nothing lost), and
  // each has ended by the time the agent stops.
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  const int status = agent.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stops cleanly on SIGTERM";
  const std::string log = kd::test::readFile(errPath);
  // (Other programs' mounts of removable media count on both sides.)
  EXPECT_EQ(static_cast<int>(lines(record).size()), countIn(log, ": started the helper")) << log;
  EXPECT_EQ(countIn(log, ": the helper (pid "), countIn(log, ": started the helper"))
      << "every run's end is reported:\n"
      << log;
}
