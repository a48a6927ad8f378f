// The co-process and its channel, started directly (the rights the process
// has) or through stand-ins for the desktop's launchers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "auth/AuthTestSupport.h"
#include "platform/linux/LinuxPrivilege.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

std::string helperPath() {
  return KdAuthorization::privilegedHelperPath().value_or("");
}

LinuxPrivilege::Config asWeAre() {
  LinuxPrivilege::Config config;
  config.requireRoot = ::geteuid() == 0;
  return config;
}

TEST(PrivilegedChannel, RunsToolsByArgvWithNothingOfOurs) {
  ASSERT_FALSE(helperPath().empty()) << "kd-privileged is not beside the test program";
  LinuxPrivilege service(asWeAre());
  PrivilegeOpening opening = service.openInherited(helperPath());
  ASSERT_TRUE(opening.channel);
  PrivilegedChannel& channel = *opening.channel;
  EXPECT_TRUE(channel.alive());

  struct Case {
    std::string tool;
    std::vector<std::string> arguments;
    int status, exitStatus;
    std::string output, error;
  };
  for (const Case& c : std::vector<Case>{
           {"/bin/echo", {"a b", "$HOME", ";", "*"}, 0, 0, "a b $HOME ; *\n", ""},
           {"/bin/sh", {"-c", "echo out; echo err >&2; exit 3"}, 0, 3, "out\n", "err\n"},
           {"/bin/sh", {"-c", "kill -TERM $$"}, 0, 128 + SIGTERM, "", ""},
           // Only the three standard streams reach a tool (3 is ls's own listing).
           {"/bin/ls", {"/proc/self/fd"}, 0, 0, "0\n1\n2\n3\n", ""},
           {"/usr/bin/env", {}, 0, 0, "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nLC_ALL=C.UTF-8\n", ""},
           {"/bin/pwd", {}, 0, 0, "/\n", ""},
           {"/nonexistent/tool", {}, -2, -1, "", ""},
           {"bin/echo", {}, EINVAL, -1, "", ""},
       }) {
    SCOPED_TRACE(c.tool);
    PrivilegedRun run = channel.run(c.tool, c.arguments, true);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.exitStatus, c.exitStatus);
    EXPECT_EQ(run.output, c.output);
    EXPECT_EQ(run.error, c.error);
  }

  TempDir tmp;
  chmod(tmp.path().c_str(), 0755);
  const std::string made = tmp / "made";
  PrivilegedRun started = channel.run("/usr/bin/touch", {made}, false);
  EXPECT_EQ(started.status, 0);
  EXPECT_TRUE(waitUntil([&] { return exists(made); }));

  const int pid = channel.coProcessId();
  ASSERT_GT(pid, 0);
  opening.channel.reset();  // ends and waits
  EXPECT_TRUE(processGone(pid));
}

// The co-process's own removal and renaming judge the path where they act:
// its /proc links are its own (here /proc/self/cwd is "/"), links are removed
// or renamed and never followed, and nothing is replaced.
TEST(PrivilegedChannel, TheGuardedRemovalAndRenamingJudgeWhereTheyAct) {
  TempDir tmp;
  chmod(tmp.path().c_str(), 0755);
  const std::string outside = tmp.touch("outside/file", "o");
  tmp.touch("keep/k", "k");
  tmp.touch("tree/a/b", "b");
  ::symlink((tmp / "outside").c_str(), (tmp / "tree/a/to-outside").c_str());
  ::symlink((tmp / "outside").c_str(), (tmp / "link").c_str());
  ::symlink("/proc/self/cwd", (tmp / "magic").c_str());
  ::symlink("/usr", (tmp / "usr-link").c_str());  // as if swapped in after a check
  tmp.touch("keyed/inner/x", "x");
  tmp.touch("file", "f");
  for (const char* name : {"r1", "r3", "r4"}) tmp.touch(name, name);
  LinuxPrivilege service(asWeAre());
  PrivilegeOpening opening = service.openInherited(helperPath());
  ASSERT_TRUE(opening.channel);
  const std::string relative = tmp.path().substr(1);  // from "/", the co-process's working folder

  struct Case {
    std::string path;
    std::vector<std::string> keys;
    int result;
    std::string gone, kept;
  };
  for (const Case& c : std::vector<Case>{
           {tmp / "file", {}, 0, tmp / "file", ""},
           {tmp / "tree", {}, 0, tmp / "tree", outside},
           {tmp / "link/", {}, 0, tmp / "link", outside},
           {tmp / "missing", {}, 0, "", ""},
           {"/proc/self/cwd/" + relative + "/keep", {}, EPERM, "", tmp / "keep/k"},
           {"/proc/thread-self/cwd/" + relative + "/keep", {}, EPERM, "", tmp / "keep/k"},
           {tmp / "magic" + "/" + relative + "/keep", {}, EPERM, "", tmp / "keep/k"},
           {tmp / "keep/.", {}, EPERM, "", tmp / "keep/k"},
           {tmp / "usr-link/bin", {}, EPERM, "", "/usr/bin"},
           {tmp / "keyed", {tmp / "keyed/inner"}, EPERM, "", tmp / "keyed/inner/x"},
           {"/usr", {}, EPERM, "", "/usr/bin"},
           {"/", {}, EPERM, "", "/usr/bin"},
       }) {
    SCOPED_TRACE(c.path);
    std::vector<std::string> arguments{c.path};
    arguments.insert(arguments.end(), c.keys.begin(), c.keys.end());
    const PrivilegedRun run = opening.channel->run(kGuardedRemove, arguments, true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.exitStatus, c.result);
    EXPECT_TRUE(c.gone.empty() || !exists(c.gone));
    EXPECT_TRUE(c.kept.empty() || exists(c.kept));
  }

  struct Rename {
    std::string source, destination;
    int result;
    std::string kept;
  };
  for (const Rename& c : std::vector<Rename>{
           {tmp / "r1", tmp / "r1-moved", 0, tmp / "r1-moved"},
           {tmp / "r3", tmp / "keep", EEXIST, tmp / "r3"},
           {"/proc/self/cwd/" + relative + "/keep", tmp / "stolen", EPERM, tmp / "keep/k"},
           {tmp / "r4", "/proc/self/cwd/" + relative + "/r4-there", EPERM, tmp / "r4"},
           {tmp / "r4", tmp / "magic" + "/" + relative + "/r4-there", EPERM, tmp / "r4"},
           {"/usr", tmp / "usr", EPERM, "/usr/bin"},
       }) {
    SCOPED_TRACE(c.source + " -> " + c.destination);
    const PrivilegedRun run = opening.channel->run(kGuardedRename, {c.source, c.destination}, true);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.exitStatus, c.result);
    EXPECT_TRUE(exists(c.kept));
  }
  EXPECT_EQ(readFile(tmp / "r1-moved"), "r1");
  EXPECT_EQ(readFile(tmp / "keep/k"), "k");
}

// A co-process that died, idle or while a command runs through it, is no
// channel: the command fails at once instead of waiting for a reply that
// never comes, and so does every later one.
TEST(PrivilegedChannel, ACoProcessThatDiedIsNoChannel) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to end the co-process from outside";
  for (bool midCommand : {false, true}) {
    SCOPED_TRACE(midCommand ? "killed mid-command" : "killed while idle");
    LinuxPrivilege service;
    PrivilegeOpening opening = service.openInherited(helperPath());
    ASSERT_TRUE(opening.channel);
    const int pid = opening.channel->coProcessId();
    std::thread killer([pid, midCommand] {
      if (midCommand) std::this_thread::sleep_for(std::chrono::milliseconds(300));
      ::kill(pid, SIGKILL);
    });
    if (!midCommand) {
      killer.join();
      ASSERT_TRUE(processGone(pid));
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(opening.channel->run("/bin/sleep", {"20"}, true).status, -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    if (killer.joinable()) killer.join();
    EXPECT_FALSE(opening.channel->alive());
    EXPECT_EQ(opening.channel->run("/bin/true", {}, true).status, -1);
  }
}

// A start that is not root's is refused where rights are required.
TEST(PrivilegedChannel, TheCoProcessMustHaveRootsRights) {
  TempDir tmp;
  const std::string launcher = tmp.touch("launcher",
                                         "#!/bin/sh\nexec setpriv --reuid=65534 "
                                         "--regid=65534 --clear-groups \"$@\"\n");
  chmod(launcher.c_str(), 0755);
  chmod(tmp.path().c_str(), 0755);
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start a co-process as another user";
  LinuxPrivilege::Config config;
  config.pkexec = launcher;
  ScopedEnv display({"DISPLAY", "WAYLAND_DISPLAY"}, {":99", std::nullopt});
  PrivilegeOpening opening = LinuxPrivilege(config).openInteractively(helperPath());
  EXPECT_FALSE(opening.channel);
  EXPECT_EQ(opening.failure, PrivilegeFailure::Refused);
}

// The desktop's launchers are not here (no polkit agent, no askpass program
// that could answer): stand-ins that start what they are given check the way
// the co-process is started through them.
TEST(PrivilegedChannel, InteractiveStartsGoThroughTheDesktopsLaunchers) {
  TempDir tmp;
  chmod(tmp.path().c_str(), 0755);
  const std::string args = tmp / "args";
  const std::string pkexec =
      tmp.touch("pkexec", "#!/bin/sh\necho \"$@\" > " + args + "\nexec \"$@\"\n");
  const std::string sudo =
      tmp.touch("sudo", "#!/bin/sh\necho \"$@\" > " + args + "\nshift 3\nexec \"$@\"\n");
  chmod(pkexec.c_str(), 0755);
  chmod(sudo.c_str(), 0755);
  LinuxPrivilege::Config config = asWeAre();
  config.pkexec = pkexec;
  config.sudo = sudo;
  LinuxPrivilege service(config);

  struct Case {
    std::optional<std::string> display, wayland, askpass;
    std::string expectedArgs;  // "" when nobody can be asked
  };
  for (const Case& c : std::vector<Case>{
           {":0", std::nullopt, std::nullopt, helperPath()},
           {std::nullopt, "wayland-0", "/usr/bin/ssh-askpass", helperPath()},
           {std::nullopt, std::nullopt, "/usr/bin/ssh-askpass", "-k -A -- " + helperPath()},
           {std::nullopt, std::nullopt, std::nullopt, ""},
           {"", "", "", ""},
       }) {
    SCOPED_TRACE(c.expectedArgs);
    ScopedEnv env({"DISPLAY", "WAYLAND_DISPLAY", "SUDO_ASKPASS"},
                  {c.display, c.wayland, c.askpass});
    ::unlink(args.c_str());
    PrivilegeOpening opening = service.openInteractively(helperPath());
    if (c.expectedArgs.empty()) {
      EXPECT_FALSE(opening.channel);
      EXPECT_EQ(opening.failure, PrivilegeFailure::NoMeans);
      EXPECT_FALSE(exists(args));
      continue;
    }
    ASSERT_TRUE(opening.channel);
    EXPECT_EQ(readFile(args), c.expectedArgs + "\n");
    EXPECT_EQ(opening.channel->run("/bin/echo", {"hi"}, true).output, "hi\n");
  }
}

TEST(PrivilegedChannel, AMissingLauncherIsAStartFailure) {
  LinuxPrivilege::Config config;
  config.sudo = "/nonexistent/sudo";
  PrivilegeOpening opening = LinuxPrivilege(config).openWithPassword(helperPath(), "secret");
  EXPECT_FALSE(opening.channel);
  EXPECT_EQ(opening.failure, PrivilegeFailure::StartFailed);
  EXPECT_EQ(opening.error, ENOENT);
}

}  // namespace
}  // namespace kd::test
