// `kd paths`, run with a home of its own and no XDG variables. A root process
// would get the console user's folders, so under root the child drops to the
// unprivileged user "nobody" first.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "common/UniqueFd.h"
#include "support/Process.h"
#include "support/RunnableCopy.h"
#include "support/TempDir.h"

TEST(KdTool, PathsOfTheUserDomainLieInTheHome) {
  // A home the unprivileged child can enter, with a localised desktop, and a
  // copy of kd it can run (the build folder may lie below a folder only root
  // may enter).
  kd::test::TempDir dir;
  std::string home = dir.mkdir("home"), out = dir / "out";
  dir.touch("home/.config/user-dirs.dirs", "XDG_DESKTOP_DIR=\"$HOME/Bureau\"\n");
  chmod(dir.path().c_str(), 0755);
  std::string tool = kd::test::runnableCopy(KD_TOOL_PATH, dir.path());
  ASSERT_NE(tool, "");

  std::string homeVar = "HOME=" + home, pathVar = "PATH=/usr/bin:/bin", command = "paths";
  char* const argv[] = {tool.data(), command.data(), nullptr};
  char* const envp[] = {homeVar.data(), pathVar.data(), nullptr};
  // Opened here: as nobody the child could not create it.
  const kd::UniqueFd fd(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  ASSERT_TRUE(fd);
  const int status = kd::test::runAsNobody([&] {
    if (dup2(fd.get(), STDOUT_FILENO) < 0) return 126;
    execve(argv[0], argv, envp);
    return 127;
  });
  if (status == kd::test::kCannotDrop) GTEST_SKIP() << "cannot switch to the user nobody";
  ASSERT_EQ(status, 0);

  const std::string paths = kd::test::readFile(out);
  int count = 0;
  std::istringstream lines(paths);
  for (std::string line; std::getline(lines, line); ++count) {
    const std::string path = line.substr(line.rfind('\t') + 1);
    const bool inHome = path == home || path.starts_with(home + "/");
    EXPECT_TRUE(line.find("\tuser\t") == std::string::npos || path.empty() || inHome) << line;
    EXPECT_TRUE(line.find("\tlocal\t") == std::string::npos || !inHome) << line;
  }
  EXPECT_EQ(count, 24) << paths;
  EXPECT_NE(paths.find("prefsDirectory\tuser\t" + home + "/.config\n"), std::string::npos);
  EXPECT_NE(paths.find("desktopDirectory\t-\t" + home + "/Bureau\n"), std::string::npos);
}
