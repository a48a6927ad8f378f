#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/Platform.h"
#include "support/Process.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

using kd::test::TempDir;
namespace fs = std::filesystem;

namespace {

// Waits up to five seconds for a file to have a whole line.
std::string waitForContents(const std::string& path) {
  kd::test::waitUntil([&] { return kd::test::readFile(path).ends_with('\n'); });
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
  auto& p = kd::nativePlatform().desktop();

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
  auto& p = kd::nativePlatform().desktop();
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProbe"));

  const pid_t pid = kd::test::spawn({exe, "30"});
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(
      kd::test::waitUntil([&] { return p.isApplicationRunning("com.quillfen.KdWorkspaceProbe"); }));
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProb")) << "whole names only";
  kill(pid, SIGKILL);
  kd::test::waitFor(pid);
  EXPECT_FALSE(p.isApplicationRunning("com.quillfen.KdWorkspaceProbe"));
}
