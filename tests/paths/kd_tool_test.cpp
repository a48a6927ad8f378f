// `kd paths` and `kd guard`, run as a child with a home of its own. A root
// process would get the console user's folders, so under root the child drops
// to the unprivileged user "nobody" first.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>

#include "common/UniqueFd.h"
#include "support/ChildMode.h"
#include "support/TempDir.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr int kCannotDrop = 77;

// Child: drops root for "nobody", then runs the program in args.
int runAsUser(const std::vector<std::string>& args) {
  if (args.empty()) return 127;
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

struct ToolRun {
  int status = -1;
  std::string out;
};

ToolRun runKd(const std::vector<std::string>& kdArgs, const std::string& home) {
  ToolRun run;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return run;
  kd::UniqueFd readEnd(fds[0]);
  kd::UniqueFd writeEnd(fds[1]);
  std::string self = kd::test::selfExecutable();
  std::vector<std::string> args = {self, "--kd-child", "run-as-user", KD_TOOL_PATH};
  args.insert(args.end(), kdArgs.begin(), kdArgs.end());
  // Only HOME: no XDG variables, no TMPDIR of the test's environment.
  std::vector<std::string> env = {"HOME=" + home, "PATH=/usr/bin:/bin"};
  std::vector<char*> argv, envp;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  writeEnd.reset();
  if (rc != 0) return run;
  char buf[4096];
  for (ssize_t n; (n = read(readEnd.get(), buf, sizeof buf)) > 0;) run.out.append(buf, n);
  int status = 0;
  waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

std::vector<std::vector<std::string>> tabSeparatedLines(const std::string& text) {
  std::vector<std::vector<std::string>> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
      fields.push_back(line.substr(start, tab - start));
    fields.push_back(line.substr(start));
    lines.push_back(fields);
  }
  return lines;
}

bool below(const std::string& path, const std::string& folder) {
  return path == folder || path.rfind(folder + "/", 0) == 0;
}

// A home the unprivileged child can enter, with a localised desktop.
struct Home {
  kd::test::TempDir dir;
  std::string path = dir.mkdir("home");
  Home() {
    dir.touch("home/.config/user-dirs.dirs", "XDG_DESKTOP_DIR=\"$HOME/Bureau\"\n");
    chmod(dir.path().c_str(), 0755);
  }
};

}  // namespace

TEST(KdTool, PathsOfTheUserDomainLieInTheHome) {
  Home home;
  ToolRun run = runKd({"paths"}, home.path);
  if (run.status == kCannotDrop) GTEST_SKIP() << "cannot switch to the user nobody";
  ASSERT_EQ(run.status, 0) << run.out;

  std::map<std::string, std::string> byName;
  std::set<std::string> domainless;
  for (const auto& f : tabSeparatedLines(run.out)) {
    ASSERT_EQ(f.size(), 3u) << "name, domain and path: " << run.out;
    const std::string& name = f[0];
    const std::string& domain = f[1];
    const std::string& path = f[2];
    byName[name + " " + domain] = path;
    if (domain == "user") {
      EXPECT_TRUE(path.empty() || below(path, home.path)) << name << ": " << path;
    } else if (domain == "local") {
      EXPECT_FALSE(!path.empty() && below(path, home.path)) << name << ": " << path;
    } else {
      EXPECT_EQ(domain, "-") << name;
      domainless.insert(name);
    }
  }
  for (const char* op : {"applicationDirectory", "adminApplicationDirectory", "documentDirectory",
                         "libraryDirectory", "prefsDirectory", "cacheDirectory",
                         "appSupportDirectory", "logDirectory"}) {
    EXPECT_TRUE(byName.count(std::string(op) + " user")) << op;
    EXPECT_TRUE(byName.count(std::string(op) + " local")) << op;
  }
  // Folders of this user without a domain flag.
  const std::map<std::string, std::string> mine = {
      {"desktopDirectory", home.path + "/Bureau"},
      {"movieDirectory", home.path + "/Videos"},
      {"userDirectory", home.path},
      {"trashDirectory", home.path + "/.Trash"},
      {"darwinCacheDirectory", home.path + "/.cache/"},
  };
  for (const auto& [name, path] : mine) EXPECT_EQ(byName[name + " -"], path) << name;
  EXPECT_EQ(byName["prefsDirectory user"], home.path + "/.config");
  EXPECT_EQ(byName["logDirectory user"], home.path + "/.local/state");
  EXPECT_TRUE(domainless.count("systemLibraryDirectory"));
  EXPECT_TRUE(domainless.count("localDocumentationDirectory"));
  EXPECT_TRUE(domainless.count("tempDirectory"));
}

TEST(KdTool, GuardAnswersPerPath) {
  Home home;
  const std::string config = home.path + "/.config";
  ToolRun run = runKd({"guard", "/usr", "/usr/bin", home.path, config, config + "/x", config + "/"},
                      home.path);
  if (run.status == kCannotDrop) GTEST_SKIP() << "cannot switch to the user nobody";
  ASSERT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "protected\t/usr\nprotected\t/usr/bin\nprotected\t" + home.path +
                         "\nprotected\t" + config + "\nnot protected\t" + config +
                         "/x\nnot protected\t" + config + "/\n");

  run = runKd({"guard", "--exact", "/usr/bin", "/"}, home.path);
  EXPECT_EQ(run.out, "not protected\t/usr/bin\nprotected\t/\n");
  EXPECT_EQ(runKd({"guard"}, home.path).status, 2) << "a path is required";
}
