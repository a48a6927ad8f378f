#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "platform/Platform.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

using kd::test::TempDir;
namespace fs = std::filesystem;

namespace {

// Waits up to five seconds for a file to have contents.
std::string waitForContents(const std::string& path) {
  for (int i = 0; i < 500; ++i) {
    std::string s = kd::test::readFile(path);
    if (!s.empty() && s.back() == '\n') return s;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return kd::test::readFile(path);
}

std::string recorderScript(const TempDir& dir, const std::string& out) {
  std::string script =
      dir.touch("bin/Recorder", "#!/bin/sh\nprintf '%s|' \"$@\" > '" + out + ".tmp'\necho >> '" +
                                    out + ".tmp'\nmv '" + out + ".tmp' '" + out + "'\n");
  chmod(script.c_str(), 0755);
  return script;
}

}  // namespace

TEST(LinuxWorkspace, OpensFilesWithAnApplicationOrADesktopEntry) {
  TempDir dir;
  std::string out = dir / "args";
  std::string app = recorderScript(dir, out);
  auto& p = kd::nativePlatform();

  ASSERT_TRUE(p.openFileWithApplication("/tmp/a report.crash", app));
  EXPECT_EQ(waitForContents(out), "/tmp/a report.crash|\n");

  fs::remove(out);
  dir.touch("share/applications/com.quillfen.Test.desktop",
            "[Desktop Entry]\nType=Application\nName=T\nExec=\"" + app + "\" --open %f\n");
  kd::test::ScopedEnv dataHome({"XDG_DATA_HOME"}, {dir / "share"});
  ASSERT_TRUE(p.openFileWithBundleIdentifier("/x/y.crash", "com.quillfen.Test"));
  EXPECT_EQ(waitForContents(out), "--open|/x/y.crash|\n");

  EXPECT_FALSE(p.openFileWithBundleIdentifier("/x/y.crash", "com.quillfen.Missing"));
  EXPECT_FALSE(p.openFileWithApplication("/x/y.crash", dir / "share")) << "a folder";
}

TEST(LinuxWorkspace, FindsRunningApplicationsByExecutableName) {
  TempDir dir;
  // A copy of sleep named like an application's executable.
  std::string exe = dir / "KdWorkspaceProbe";
  fs::copy_file("/bin/sleep", exe);
  chmod(exe.c_str(), 0755);
  auto& p = kd::nativePlatform();
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProbe"));

  pid_t pid = 0;
  char* argv[] = {const_cast<char*>(exe.c_str()), const_cast<char*>("30"), nullptr};
  ASSERT_EQ(posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ), 0);
  bool seen = false;
  for (int i = 0; i < 100 && !seen; ++i) {
    seen = p.isApplicationRunning("com.quillfen.KdWorkspaceProbe");
    if (!seen) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(seen);
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProb")) << "whole names only";
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProbe"));
}
