// `kd paths` and `kd guard`, run with a home of their own and no XDG variables.
// A root process would get the console user's folders, so under root the
// child drops to the unprivileged user "nobody" first.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "child_support.h"
#include "support/ChildMode.h"
#include "support/TempDir.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kCannotDrop = 77;

int runAsUser(const std::vector<std::string>& args) {
  if (getuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(kNobody, kNobody, kNobody) != 0 ||
                        setresuid(kNobody, kNobody, kNobody) != 0))
    return kCannotDrop;
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  return 127;
}
KD_CHILD_MODE("run-as-user", runAsUser);

// A home the unprivileged child can enter, with a localised desktop, and a
// copy of kd it can run (the build folder may lie below a folder only root
// may enter).
struct Home {
  kd::test::TempDir dir;
  std::string path = dir.mkdir("home");
  std::string tool = dir / "kd";
  Home() {
    dir.touch("home/.config/user-dirs.dirs", "XDG_DESKTOP_DIR=\"$HOME/Bureau\"\n");
    chmod(dir.path().c_str(), 0755);
    std::filesystem::copy_file(KD_TOOL_PATH, tool);
    chmod(tool.c_str(), 0755);
  }
  kd::test::ChildRun kd(std::vector<std::string> args) const {
    args.insert(args.begin(), tool);
    const std::vector<std::string> env = {"HOME=" + path, "PATH=/usr/bin:/bin"};
    return kd::test::runChildMode("run-as-user", args, &env);
  }
};

}  // namespace

TEST(KdTool, PathsOfTheUserDomainLieInTheHome) {
  Home home;
  kd::test::ChildRun run = home.kd({"paths"});
  if (run.status == kCannotDrop) GTEST_SKIP() << "cannot switch to the user nobody";
  ASSERT_EQ(run.status, 0);

  std::map<std::string, std::string> found;  // "name domain" -> path
  std::istringstream lines(run.out);
  for (std::string name, domain, path; std::getline(lines, name, '\t');) {
    std::getline(lines, domain, '\t');
    std::getline(lines, path);
    found[name + " " + domain] = path;
    bool inHome = path == home.path || path.rfind(home.path + "/", 0) == 0;
    if (domain == "user") {
      EXPECT_TRUE(path.empty() || inHome) << name << ": " << path;
    } else if (domain == "local") {
      EXPECT_FALSE(inHome) << name << ": " << path;
    }
  }
  EXPECT_EQ(found.size(), 24u) << run.out;
  const std::map<std::string, std::string> expected = {
      {"prefsDirectory user", home.path + "/.config"},
      {"logDirectory user", home.path + "/.local/state"},
      {"logDirectory local", "/var/log"},
      {"desktopDirectory -", home.path + "/Bureau"},
      {"movieDirectory -", home.path + "/Videos"},
      {"userDirectory -", home.path},
      {"trashDirectory -", home.path + "/.Trash"},
      {"darwinCacheDirectory -", home.path + "/.cache/"},
      {"adminApplicationDirectory user", ""},
  };
  for (const auto& [key, path] : expected) EXPECT_EQ(found[key], path) << key;
}

TEST(KdTool, GuardAnswersPerPath) {
  Home home;
  const std::string conf = home.path + "/.config";
  kd::test::ChildRun run = home.kd({"guard", "/usr/bin", home.path, conf, conf + "/x", conf + "/"});
  if (run.status == kCannotDrop) GTEST_SKIP() << "cannot switch to the user nobody";
  EXPECT_EQ(run.out, "protected\t/usr/bin\nprotected\t" + home.path + "\nprotected\t" + conf +
                         "\nnot protected\t" + conf + "/x\nnot protected\t" + conf + "/\n");
  EXPECT_EQ(home.kd({"guard", "--exact", "/usr/bin"}).out, "not protected\t/usr/bin\n");
  EXPECT_EQ(home.kd({"guard"}).status, 2) << "a path is required";
}
