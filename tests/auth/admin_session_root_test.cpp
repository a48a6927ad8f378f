// A real session of administrator rights. The root side makes a throwaway
// ordinary user with a password and a sudoers entry (both removed again, also
// when a test fails), prepares root-owned files, and starts a copy of this
// program as that user running one of the AsAdmin tests, with the password on
// its standard input. The AsAdmin tests skip unless started that way.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <set>
#include <thread>

#include "auth/AuthTestSupport.h"
#include "common/Path.h"
#include "log/KdLog.h"
#include "platform/linux/Passwd.h"
#include "support/ChildMode.h"
#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;
using Access = KdAuthorizationTestAccess;

constexpr char kAsAdmin[] = "KD_AUTH_AS_ADMIN";
constexpr char kWork[] = "KD_AUTH_WORK";
constexpr char kInvalid[] = "Authorization failed. Invalid username or password";

bool gone(int pid) {
  for (int i = 0; i < 500; ++i) {
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    if (stat.empty() || stat.find(") Z ") != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

std::string randomText(std::size_t n) {
  static constexpr char kChars[] = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string out(n, 'x');
  unsigned char bytes[64] = {};
  if (getrandom(bytes, n, 0) != static_cast<ssize_t>(n)) return {};
  for (std::size_t i = 0; i < n; ++i) out[i] = kChars[bytes[i] % (sizeof kChars - 1)];
  return out;
}

uid_t ownerOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

// --- The root side ---------------------------------------------------------------

// A user of our own with a password and a sudoers entry, a home, root-owned
// work files, and copies of this program and kd-privileged the user can run.
class ThrowawayAdmin {
 public:
  explicit ThrowawayAdmin(std::string password)
      : name_("kdauth" + std::to_string(::getpid())),
        sudoers_("/etc/sudoers.d/kdauth-test-" + std::to_string(::getpid())),
        password_(std::move(password)) {
    removeLeftovers();
    ::chmod(dir_.path().c_str(), 0755);
    home_ = dir_ / "home";
    work_ = dir_.mkdir("work");
    bin_ = dir_.mkdir("bin");
    if (passwdByName(name_)) return;  // never touch a user we did not make
    if (KdTaskEx::terminationCodeFromTask("/usr/sbin/useradd",
                                          {"-M", "-U", "-d", home_, "-s", "/bin/sh", name_}) != 0)
      return;
    created_ = true;
    struct passwd* pw = ::getpwnam(name_.c_str());
    if (!pw) return;
    uid_ = pw->pw_uid;
    gid_ = pw->pw_gid;
    // The password goes to chpasswd's input, never onto a command line.
    FILE* chpasswd = ::popen("/usr/sbin/chpasswd", "w");
    if (!chpasswd) return;
    std::fprintf(chpasswd, "%s:%s\n", name_.c_str(), password_.c_str());
    if (::pclose(chpasswd) != 0) return;
    fs::create_directories(home_);
    if (::chown(home_.c_str(), uid_, gid_) != 0 || ::chmod(home_.c_str(), 0700) != 0) return;
    const std::string self = selfExecutable();
    for (const std::string& program :
         {self, path::append(path::deletingLastComponent(self), "kd-privileged")}) {
      const std::string copy = path::append(bin_, path::lastComponent(program));
      fs::copy_file(program, copy);
      ::chmod(copy.c_str(), 0755);
    }
    ready_ = setRule(false);
  }

  ~ThrowawayAdmin() {
    endProcesses();
    ::unlink(sudoers_.c_str());
    if (created_) KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {"-f", name_});
  }

  bool ready() const { return ready_; }
  const std::string& name() const { return name_; }
  const std::string& password() const { return password_; }
  const std::string& work() const { return work_; }
  const std::string& home() const { return home_; }
  uid_t uid() const { return uid_; }
  std::string helper() const { return bin_ + "/kd-privileged"; }

  // Takes the user's sudoers entry away.
  bool removeRule() { return ::unlink(sudoers_.c_str()) == 0; }

  // The user may run anything as root, with or without being asked for a
  // password.
  bool setRule(bool noPassword) {
    const std::string rule = name_ + " ALL=(root) " + (noPassword ? "NOPASSWD: " : "") + "ALL\n";
    const std::string temporary = sudoers_ + ".tmp";  // sudo skips names with a dot
    {
      std::ofstream out(temporary);
      out << rule;
      if (!out) return false;
    }
    return ::chmod(temporary.c_str(), 0440) == 0 &&
           ::rename(temporary.c_str(), sudoers_.c_str()) == 0;
  }

  // Starts this program as the user, running AsAdmin.<test> with `input` on
  // its standard input; its output and error come back through `output`.
  // With `effectiveRoot` it keeps an effective user id of 0, as a program
  // started with rights would.
  pid_t start(const std::string& test, const std::string& input, UniqueFd* output,
              bool effectiveRoot = false) {
    const uid_t effective = effectiveRoot ? 0 : uid_;
    const std::string program = bin_ + "/" + path::lastComponent(selfExecutable());
    std::vector<std::string> args = {program, "--gtest_filter=AsAdmin." + test};
    std::vector<std::string> env = {"HOME=" + home_,
                                    "USER=" + name_,
                                    "LOGNAME=" + name_,
                                    "PATH=/usr/bin:/bin",
                                    std::string(kAsAdmin) + "=1",
                                    std::string(kWork) + "=" + work_};
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
      if (::dup2(in[0], 0) < 0 || ::dup2(out[1], 1) < 0 || ::dup2(out[1], 2) < 0 ||
          ::setgroups(0, nullptr) != 0 || ::setresgid(gid_, gid_, gid_) != 0 ||
          ::setresuid(uid_, effective, effective) != 0 || ::chdir(home_.c_str()) != 0)
        ::_exit(126);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    output->reset(out[0]);
    UniqueFd writer(in[1]);
    const std::string line = input + "\n";
    if (::write(writer.get(), line.data(), line.size()) < 0) return pid;
    return pid;
  }

  // Waits for a started run; its exit status (-1 when it did not exit).
  static int finish(pid_t pid, UniqueFd& output, std::string* text) {
    char buf[4096];
    for (ssize_t n; (n = retryOnEintr([&] { return ::read(output.get(), buf, sizeof buf); })) > 0;)
      text->append(buf, static_cast<std::size_t>(n));
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

 private:
  // Users and sudoers entries of runs of this test that were killed before
  // they could clean up (their process no longer exists).
  static void removeLeftovers() {
    auto deadRun = [](const std::string& name, const std::string& prefix) {
      if (!name.starts_with(prefix)) return false;
      const std::string pid = name.substr(prefix.size(), name.find('.') - prefix.size());
      return !pid.empty() && pid.find_first_not_of("0123456789") == std::string::npos &&
             ::kill(std::stoi(pid), 0) != 0 && errno == ESRCH;
    };
    for (const auto& entry : fs::directory_iterator("/etc/sudoers.d"))
      if (deadRun(entry.path().filename(), "kdauth-test-")) ::unlink(entry.path().c_str());
    std::ifstream passwd("/etc/passwd");
    for (std::string line; std::getline(passwd, line);) {
      const std::string name = line.substr(0, line.find(':'));
      if (deadRun(name, "kdauth"))
        KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {"-f", name});
    }
  }

  // Processes of the throwaway user, and co-processes started from our copy,
  // ended by their ids.
  void endProcesses() {
    if (!created_) return;
    for (int round = 0; round < 2; ++round) {
      for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code ec;
        const std::string exe = fs::read_symlink(entry.path() / "exe", ec);
        struct stat st {};
        const bool ours = ::stat(entry.path().c_str(), &st) == 0 && st.st_uid == uid_;
        if (ours || exe == helper()) ::kill(std::stoi(pid), SIGKILL);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  TempDir dir_;
  std::string name_, sudoers_, password_, home_, work_, bin_;
  uid_t uid_ = static_cast<uid_t>(-1);
  gid_t gid_ = static_cast<gid_t>(-1);
  bool created_ = false, ready_ = false;
};

class AdminSession : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to make a throwaway user";
    if (::access("/usr/bin/sudo", X_OK) != 0 || ::access("/usr/sbin/useradd", X_OK) != 0)
      GTEST_SKIP() << "needs sudo and useradd (scripts/deps.sh)";
    admin_ = std::make_unique<ThrowawayAdmin>("Kd-" + randomText(20) + "!");
    ASSERT_TRUE(admin_->ready()) << "could not make the throwaway user";
  }
  // Runs AsAdmin.<test> as the user and expects it to pass.
  void runAsAdmin(const std::string& test, const std::string& input, bool effectiveRoot = false) {
    UniqueFd output;
    const pid_t pid = admin_->start(test, input, &output, effectiveRoot);
    ASSERT_GT(pid, 0);
    std::string text;
    EXPECT_EQ(ThrowawayAdmin::finish(pid, output, &text), 0) << text;
    EXPECT_NE(text.find("[  PASSED  ] 1 test"), std::string::npos) << text;
  }
  std::unique_ptr<ThrowawayAdmin> admin_;
};

TEST_F(AdminSession, TheRightPasswordGivesRootsRightsAndIsSeenNowhere) {
  // Root-owned files in a root-owned folder: only rights can change them.
  for (const std::string f : {"victim", "-rf", "keep/k", "a", "1/clip.mov", "2/clip.mov", "3/notes",
                              "4/notes", "full/x", "full/y", "locked/p", "locked/q"}) {
    fs::create_directories(fs::path(admin_->work() + "/" + f).parent_path());
    std::ofstream(admin_->work() + "/" + f) << f;
  }
  ::chmod((admin_->work() + "/locked").c_str(), 0700);  // the user may not even list it

  UniqueFd output;
  const pid_t pid = admin_->start("RightPassword", admin_->password(), &output);
  ASSERT_GT(pid, 0);
  std::string text;
  std::thread reader([&] { ThrowawayAdmin::finish(pid, output, &text); });
  // While the session starts and works, no process shows the password in its
  // command line or environment.
  int sightings = 0, leaks = 0;
  std::string leaked;
  while (::kill(pid, 0) == 0 &&
         readFile("/proc/" + std::to_string(pid) + "/stat").find(") Z ") == std::string::npos) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      const std::string cmdline = readFile(entry.path() / "cmdline");
      const std::string environ = readFile(entry.path() / "environ");
      if (cmdline.find(admin_->helper()) != std::string::npos) ++sightings;
      if (cmdline.find(admin_->password()) != std::string::npos ||
          environ.find(admin_->password()) != std::string::npos) {
        ++leaks;
        leaked += cmdline + "\n";
      }
    }
  }
  reader.join();
  EXPECT_NE(text.find("[  PASSED  ] 1 test"), std::string::npos) << text;
  EXPECT_EQ(leaks, 0) << leaked;
  EXPECT_GT(sightings, 0) << "the scan never saw the co-process start";
  EXPECT_FALSE(exists(admin_->work() + "/victim"));
  EXPECT_TRUE(exists(admin_->work() + "/keep/k"));
}

TEST_F(AdminSession, AWrongPasswordGivesNoSessionEvenWhereSudoWouldNotAsk) {
  for (bool noPassword : {false, true}) {
    SCOPED_TRACE(noPassword);
    ASSERT_TRUE(admin_->setRule(noPassword));
    runAsAdmin("WrongPassword", admin_->password() + "x");
  }
}

TEST_F(AdminSession, TheRightPasswordOfAUserWithoutRightsGivesNoSession) {
  ASSERT_TRUE(admin_->removeRule());
  runAsAdmin("WrongPassword", admin_->password());
}

TEST_F(AdminSession, ThePasswordIsCheckedWhereSudoWouldNotAsk) {
  ASSERT_TRUE(admin_->setRule(true));
  runAsAdmin("RightPasswordWithoutAsking", admin_->password());
}

TEST_F(AdminSession, AProgramStartedWithRightsHasThemWithoutAPassword) {
  ASSERT_TRUE(admin_->removeRule());
  std::ofstream(admin_->work() + "/victim") << "v";
  runAsAdmin("InheritedRights", "", /*effectiveRoot=*/true);
  EXPECT_FALSE(exists(admin_->work() + "/victim"));
}

TEST_F(AdminSession, KillingTheProgramEndsTheCoProcess) {
  UniqueFd output;
  const pid_t pid = admin_->start("HoldSession", admin_->password(), &output);
  ASSERT_GT(pid, 0);
  std::string text;
  int helper = 0;
  char c = 0;
  while (helper == 0 && ::read(output.get(), &c, 1) == 1) {
    text.push_back(c);
    std::smatch m;
    if (c == '\n' && std::regex_search(text, m, std::regex("session (\\d+)\n")))
      helper = std::stoi(m[1]);
  }
  ASSERT_GT(helper, 0) << text;
  EXPECT_FALSE(readFile("/proc/" + std::to_string(helper) + "/stat").empty());
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(gone(helper)) << "the co-process outlived its program";
}

// --- The user's side ---------------------------------------------------------------

// Captures the system log and passes it on.
class CapturingPlatform : public ForwardingPlatform {
 public:
  CapturingPlatform() : ForwardingPlatform(nativePlatform()) {}
  void systemLog(std::string_view message) override {
    std::lock_guard lock(mutex_);
    messages_.emplace_back(message);
    ForwardingPlatform::systemLog(message);
  }
  std::vector<std::string> messages() {
    std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> messages_;
};

class AsAdmin : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::getenv(kAsAdmin) || ::getuid() == 0)
      GTEST_SKIP() << "runs as the throwaway user, started by the AdminSession tests";
    std::getline(std::cin, password_);
    work_ = std::getenv(kWork);
    user_ = nativePlatform().userName().value_or("");
  }
  std::string password_, work_, user_;
};

TEST_F(AsAdmin, RightPassword) {
  auto auth = Access::make(false);
  ASSERT_TRUE(auth->authStartWithUser(user_, password_));
  EXPECT_TRUE(auth->isAuthorized());
  const int first = Access::coProcessId(*auth);
  ASSERT_GT(first, 0);

  EXPECT_EQ(auth->authExecTask("/bin/sh", {"-c", "test \"$(id -u)\" = 0"}, false), 0);
  EXPECT_EQ(auth->authExecTask("/bin/false", {}, false), 1);
  EXPECT_EQ(auth->authExecTask("/nonexistent/tool", {}), -2);

  EXPECT_TRUE(auth->authRemoveFile(work_ + "/victim"));
  EXPECT_FALSE(exists(work_ + "/victim"));
  ASSERT_EQ(::chdir(work_.c_str()), 0);
  EXPECT_TRUE(auth->authRemoveFile("-rf"));
  EXPECT_FALSE(exists(work_ + "/-rf"));
  EXPECT_TRUE(exists(work_ + "/keep/k"));
  EXPECT_TRUE(auth->authMoveFile(work_ + "/a", work_ + "/b"));
  EXPECT_EQ(readFile(work_ + "/b"), "a");
  EXPECT_TRUE(auth->authCreateDir(work_ + "/made/here"));
  EXPECT_EQ(ownerOf(work_ + "/made/here"), 0u);

  // The user's own trash; the records are the user's.
  for (const char* item : {"1/clip.mov", "2/clip.mov", "3/notes", "4/notes"})
    EXPECT_TRUE(auth->authTrashFile(work_ + "/" + item)) << item;
  EXPECT_TRUE(auth->authTrashFolderContents(work_ + "/full"));
  EXPECT_TRUE(auth->authTrashFolderContents(work_ + "/locked"));
  const std::string trash = std::string(std::getenv("HOME")) + "/.local/share/Trash";
  std::set<std::string> names, texts;
  for (const auto& entry : fs::directory_iterator(trash + "/files")) {
    const std::string name = entry.path().filename();
    names.insert(name);
    texts.insert(readFile(entry.path()));
    EXPECT_EQ(ownerOf(trash + "/info/" + name + ".trashinfo"), ::getuid()) << name;
  }
  EXPECT_EQ(texts, (std::set<std::string>{"1/clip.mov", "2/clip.mov", "3/notes", "4/notes",
                                          "full/x", "full/y", "locked/p", "locked/q"}));
  EXPECT_TRUE(names.count("clip.mov") && names.count("notes") && names.count("x"));
  int stamped = 0;
  for (const std::string& name : names)
    stamped += std::regex_match(name, std::regex(R"((clip_\d{14}\.mov|notes_\d{14}\.))"));
  EXPECT_EQ(stamped, 2);

  // A new start ends the session there was; the end ends the new one.
  ASSERT_TRUE(auth->authStartWithUser(user_, password_));
  const int second = Access::coProcessId(*auth);
  EXPECT_NE(second, first);
  EXPECT_TRUE(gone(first));
  auth->authEnd();
  EXPECT_TRUE(gone(second));
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_EQ(auth->authExecTask("/bin/true", {}), -1);
}

TEST_F(AsAdmin, RightPasswordWithoutAsking) {
  auto auth = Access::make(false);
  ASSERT_TRUE(auth->authStartWithUser(user_, password_));
  EXPECT_EQ(auth->authExecTask("/bin/sh", {"-c", "test \"$(id -u)\" = 0"}, false), 0);
  const int pid = Access::coProcessId(*auth);
  auth->authEnd();
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_TRUE(gone(pid));
}

TEST_F(AsAdmin, WrongPassword) {
  CapturingPlatform capture;
  ScopedPlatform scoped(capture);
  KdLog::createNewLog("kdauth-test");
  auto auth = Access::make(false);
  EXPECT_FALSE(auth->authStartWithUser(user_, password_));
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_EQ(Access::coProcessId(*auth), 0);
  // sudo checks the password of the user running it: another name fails alike.
  EXPECT_FALSE(auth->authStartWithUser("root", password_));
  EXPECT_EQ(capture.messages(), (std::vector<std::string>{kInvalid, kInvalid}));
  KdLog::finishWriting();
  const std::vector<std::string> logs = KdLog::availableLogs();
  ASSERT_FALSE(logs.empty());
  const std::string log = readFile(logs.front());
  EXPECT_NE(log.find(std::string(" - ") + kInvalid + "\n"), std::string::npos) << log;
}

TEST_F(AsAdmin, InheritedRights) {
  auto auth = Access::make(false);
  EXPECT_TRUE(auth->isAuthorized());
  EXPECT_TRUE(auth->authStart());
  EXPECT_EQ(Access::coProcessId(*auth), 0);  // started when first needed
  EXPECT_TRUE(auth->authRemoveFile(work_ + "/victim"));
  const int pid = Access::coProcessId(*auth);
  EXPECT_GT(pid, 0);
  EXPECT_EQ(
      readFile("/proc/" + std::to_string(pid) + "/cmdline"),
      path::deletingLastComponent(selfExecutable()) + "/kd-privileged" + std::string(1, '\0'));
  auth->authEnd();
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_TRUE(gone(pid));
}

TEST_F(AsAdmin, HoldSession) {
  auto auth = Access::make(false);
  ASSERT_TRUE(auth->authStartWithUser(user_, password_));
  std::printf("session %d\n", Access::coProcessId(*auth));
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(60));
}

}  // namespace
}  // namespace kd::test
