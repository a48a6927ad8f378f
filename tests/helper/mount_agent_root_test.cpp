// The mount agent, run for real: it must start the helper once at start with
// "-setup" and exactly once per new mount of removable media, never for an
// unmount or for other mounts, and report how each run ended.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>
#include <utility>

#include "support/Process.h"
#include "support/TempDir.h"

using kd::test::TempDir;

namespace {

using kd::test::countOf;
using kd::test::readFile;

std::vector<std::string> lines(const std::string& path) {
  std::vector<std::string> out;
  std::istringstream in(readFile(path));
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// Waits until the file has at least `n` lines or the time is up.
std::vector<std::string> waitForLines(const std::string& path, std::size_t n, int ms) {
  kd::test::waitUntil([&] { return lines(path).size() >= n; }, std::chrono::milliseconds(ms));
  return lines(path);
}

// Waits until the file holds `text` at least `n` times or the time is up.
bool waitForText(const std::string& path, const std::string& text, int ms, int n = 1) {
  return kd::test::waitUntil([&] { return countOf(readFile(path), text) >= n; },
                             std::chrono::milliseconds(ms));
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
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    pid_ = kd::test::spawn(args, {.env = env, .err = dir / "stderr"});
  }
  ~Agent() {
    if (started()) stop();
  }
  bool started() const { return pid_ > 0; }
  // Stops the agent; its wait status.
  int stop() {
    kill(pid_, SIGTERM);
    return kd::test::waitFor(std::exchange(pid_, -1));
  }

 private:
  pid_t pid_ = -1;
};

// A stand-in helper in `dir` running `body`; its path.
std::string standInHelper(const TempDir& dir, const std::string& body) {
  const std::string helper = dir.touch("FerrimoHelper", "#!/bin/sh\n" + body + "\n");
  chmod(helper.c_str(), 0755);
  return helper;
}

}  // namespace

// Under systemd the agent's standard error is the journal: lines carry their
// priority, and a helper that fails or dies is reported as an error.
TEST(MountAgentRoot, ReportsHowTheHelperEndedWithJournalPriorities) {
  TempDir dir;
  std::string appDir = dir.mkdir("Ferrimo.app");
  const std::string helper = standInHelper(dir, "kill -TERM $$");
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
  const std::string log = readFile(errPath);
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
    const pid_t pid = kd::test::spawn({KD_AGENT_PATH, "--helper", "/bin/true", "--app-dir",
                                       dir.path(), "--lock", lock, "--no-setup"});
    if (pid > 0 && stopSoon) {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      kill(pid, SIGTERM);
    }
    return pid > 0 ? kd::test::exitCode(kd::test::waitFor(pid)) : -1;
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

// The agent runs the helper once at start with "-setup", in the application
// folder; then fifty mounts in quick succession, two card slots taking turns,
// each unmounted as soon as the agent has started its helper run (the run
// still going): one run per mount, without arguments, none for the unmounts
// or for a mount that is not removable media; then a burst of mounts and
// unmounts faster than the agent can look, after which it still answers the
// next mount. Nothing hangs, and every run started is reported ended. Other
// programs on this machine may mount removable media meanwhile, and the agent
// rightly runs the helper for those too: the checks count only what the agent
// reports for the mounts made here.
TEST(MountAgentRoot, FiftyQuickMountsStartOneRunEach) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  TempDir dir;
  const std::string record = dir / "runs";
  const std::string appDir = dir.mkdir("Ferrimo.app");
  // A helper slower than the unmount that follows its start; it records its
  // working folder and arguments.
  const std::string helper =
      standInHelper(dir, "echo \"$(pwd)|$*\" >> '" + record + "'\nsleep 0.05");
  MediaMount slots[2] = {MediaMount("A"), MediaMount("B")};
  const std::string errPath = dir / "stderr", other = dir.mkdir("other");
  Agent agent(dir, helper, appDir, {}, {"--verbose"});
  ASSERT_TRUE(agent.started());
  ASSERT_GE(waitForLines(record, 1, 5000).size(), 1u);
  EXPECT_EQ(lines(record)[0], appDir + "|-setup");
  auto startedFor = [](const MediaMount& m) {
    return "new removable volume " + m.target() + ": started the helper";
  };
  auto runsFor = [&](const MediaMount& m) { return countOf(readFile(errPath), startedFor(m)); };

  // A mount that is not removable media (a tmpfs in a temporary folder)
  // starts nothing.
  if (mount("tmpfs", other.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount tmpfs here: " << strerror(errno);
  EXPECT_TRUE(waitForText(errPath, "new mount " + other + " is not removable media", 5000));
  umount(other.c_str());

  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 50; ++i) {
    MediaMount& card = slots[i % 2];
    ASSERT_TRUE(card.mount()) << strerror(errno);
    ASSERT_TRUE(waitForText(errPath, startedFor(card), 10000, i / 2 + 1))
        << "mount " << i + 1 << " started no run:\n"
        << readFile(errPath);
    ASSERT_TRUE(card.unmount()) << strerror(errno);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  RecordProperty("seconds_for_50_mounts", std::to_string(seconds));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(runsFor(slots[0]), 25) << readFile(errPath);
  EXPECT_EQ(runsFor(slots[1]), 25) << readFile(errPath);
  const auto runs = lines(record);
  EXPECT_GE(std::count(runs.begin() + 1, runs.end(), appDir + "|"), 50) << "no arguments";

  // One slot, remounted the moment its run started: the unmount and the next
  // mount may come in one reading of the table, with the same mount id and
  // device; the kernel's never-reused mount id tells them apart.
  struct statx root {};
  if (::statx(AT_FDCWD, "/", 0, 0x00004000U /* STATX_MNT_ID_UNIQUE */, &root) == 0 &&
      (root.stx_mask & 0x00004000U)) {
    const int first = runsFor(slots[0]);
    for (int i = 1; i <= 20; ++i) {
      ASSERT_TRUE(slots[0].mount()) << strerror(errno);
      ASSERT_TRUE(waitForText(errPath, startedFor(slots[0]), 10000, first + i))
          << "remount " << i << " started no run:\n"
          << readFile(errPath);
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
  EXPECT_TRUE(waitForText(errPath, startedFor(slots[1]), 10000, before + 1)) << readFile(errPath);
  ASSERT_TRUE(slots[1].unmount());
  // Every run the agent started is one the helper made (nothing lost), and
  // each has ended by the time the agent stops.
  std::this_thread::sleep_for(std::chrono::milliseconds(800));
  const int status = agent.stop();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stops cleanly on SIGTERM";
  const std::string log = readFile(errPath);
  // (Other programs' mounts of removable media count on both sides.)
  EXPECT_EQ(static_cast<int>(lines(record).size()), countOf(log, ": started the helper")) << log;
  EXPECT_EQ(countOf(log, ": the helper (pid "), countOf(log, ": started the helper"))
      << "every run's end is reported:\n"
      << log;
  EXPECT_EQ(countOf(log, other + ":"), 0) << "nothing for other mounts:\n" << log;
  EXPECT_EQ(countOf(log, "login: started the helper"), 1) << log;
  EXPECT_NE(log.find("login: the helper (pid "), std::string::npos) << log;
  EXPECT_EQ(log.find("<"), std::string::npos) << "no priorities outside the journal: " << log;
}

// With the desktop set to never start programs on media insertion (a stand-in
// gsettings says so), a card starts no helper run, and the journal says why;
// the login run still records the session's start.
TEST(MountAgentRoot, AutorunNeverStartsNothingForACard) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  TempDir dir;
  const std::string record = dir / "runs";
  const std::string appDir = dir.mkdir("Ferrimo.app");
  const std::string helper = standInHelper(dir, "echo \"$*\" >> '" + record + "'");
  const std::string tools = dir.mkdir("tools");
  const std::string gsettings = dir.touch("tools/gsettings", "#!/bin/sh\necho true\n");
  chmod(gsettings.c_str(), 0755);
  const char* path = std::getenv("PATH");
  MediaMount card;

  Agent agent(dir, helper, appDir, {"PATH=" + tools + ":" + (path ? path : "/usr/bin:/bin")});
  ASSERT_TRUE(agent.started());
  ASSERT_EQ(waitForLines(record, 1, 5000).size(), 1u);
  ASSERT_TRUE(card.mount()) << strerror(errno);
  const std::string errPath = dir / "stderr";
  EXPECT_TRUE(waitForText(errPath,
                          "new removable volume " + card.target() +
                              ": the desktop is set to never start programs on media insertion "
                              "(autorun-never): Ferrimo is not started",
                          5000))
      << readFile(errPath);
  ASSERT_TRUE(card.unmount());
  agent.stop();
  EXPECT_EQ(lines(record), std::vector<std::string>{"-setup"}) << "only the login run";
}
