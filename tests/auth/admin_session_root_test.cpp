// A real session of administrator rights. The root side makes a throwaway
// ordinary user with a password and a sudoers entry (both removed again, also
// when a test fails), prepares root-owned files, and starts a copy of this
// program as that user running one of the AsAdmin tests, with the password on
// its standard input. The AsAdmin tests skip unless started that way.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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
#include "support/ChildMode.h"
#include "support/TempDir.h"
#include "support/ThrowawayAdmin.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;
using Access = KdAuthorizationTestAccess;

constexpr char kInvalid[] = "Authorization failed. Invalid username or password";

// --- The root side ---------------------------------------------------------------

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

// Without the right password, or without rights, there is no session, even
// where sudo would not ask; a program started with rights needs no password.
TEST_F(AdminSession, WhoGetsASession) {
  enum Rule { None, Asked, NotAsked };
  struct Case {
    const char* what;
    Rule rule;
    std::string input;
    const char* test;  // of AsAdmin
  };
  const Case cases[] = {
      {"a wrong password", Asked, admin_->password() + "x", "WrongPassword"},
      {"a wrong password where sudo would not ask", NotAsked, admin_->password() + "x",
       "WrongPassword"},
      {"the right password of a user without rights", None, admin_->password(), "WrongPassword"},
      {"rights from the start", None, "", "InheritedRights"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(c.rule == None ? admin_->removeRule() || errno == ENOENT
                               : admin_->setRule(c.rule == NotAsked));
    std::ofstream(admin_->work() + "/victim") << "v";
    runAsAdmin(c.test, c.input, /*effectiveRoot=*/c.input.empty());
  }
  EXPECT_FALSE(exists(admin_->work() + "/victim"));
}

// The co-process of a session held by AsAdmin.HoldSession, as it reports it;
// 0 when it never did (`text`: what the run wrote).
int heldSession(UniqueFd& output, std::string& text) {
  char c = 0;
  while (::read(output.get(), &c, 1) == 1) {
    text.push_back(c);
    std::smatch m;
    if (c == '\n' && std::regex_search(text, m, std::regex("session (\\d+)\n")))
      return std::stoi(m[1]);
  }
  return 0;
}

TEST_F(AdminSession, KillingTheProgramEndsTheCoProcess) {
  UniqueFd output;
  const pid_t pid = admin_->start("HoldSession", admin_->password(), &output);
  ASSERT_GT(pid, 0);
  std::string text;
  const int helper = heldSession(output, text);
  ASSERT_GT(helper, 0) << text;
  EXPECT_FALSE(readFile("/proc/" + std::to_string(helper) + "/stat").empty());
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  EXPECT_TRUE(processGone(helper)) << "the co-process outlived its program";
}

// Written by another process of the same user into every pipe of the
// session's holder that it can open through /proc/<holder>/fd: a request to
// run "touch <file>" as root, without and with a guessed secret.
int writeRequestsInto(const std::vector<std::string>& args) {
  if (args.size() != 2) return 2;
  auto request = [&](bool withSecret) {
    std::string body = withSecret ? std::string(32, '\0') : std::string();
    body.push_back(0);  // do not wait
    const std::uint32_t argc = 2;
    body.append(reinterpret_cast<const char*>(&argc), 4);
    for (const std::string& a : {std::string("/usr/bin/touch"), args[1]}) {
      const auto n = static_cast<std::uint32_t>(a.size());
      body.append(reinterpret_cast<const char*>(&n), 4);
      body += a;
    }
    const auto size = static_cast<std::uint32_t>(body.size());
    return std::string(reinterpret_cast<const char*>(&size), 4) + body;
  };
  const std::string frames = request(false) + request(true);
  int opened = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator("/proc/" + args[0] + "/fd", ec)) {
    UniqueFd fd(::open(entry.path().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) continue;
    ++opened;
    if (::write(fd.get(), frames.data(), frames.size()) < 0) continue;
  }
  std::printf("opened %d\n", opened);
  return 0;
}
KD_CHILD_MODE("write-requests", writeRequestsInto);

TEST_F(AdminSession, AnotherProcessOfTheUserCannotUseTheSession) {
  UniqueFd output;
  const pid_t holder = admin_->start("HoldSession", admin_->password(), &output);
  ASSERT_GT(holder, 0);
  std::string text;
  const int helper = heldSession(output, text);
  ASSERT_GT(helper, 0) << text;
  const std::string planted = admin_->work() + "/planted";
  const std::string self = path::append(admin_->bin(), path::lastComponent(selfExecutable()));
  std::string attack;
  EXPECT_EQ(admin_->run({self, "--kd-child", "write-requests", std::to_string(holder), planted}, "",
                        &attack),
            0);
  EXPECT_EQ(attack, "opened 0\n");
  // A served request would have run by now.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_FALSE(exists(planted)) << "another process ran a command as root through the session";
  ::kill(holder, SIGKILL);
  ::waitpid(holder, nullptr, 0);
}

// Under a rule that asks for no password sudo leaves the password unread, and
// the co-process skips it: however long, spaced or worded (even like the
// start line), it is skipped whole; where sudo reads it, it works as well.
TEST_F(AdminSession, AnyPasswordWorksWhetherSudoReadsItOrNot) {
  std::string longPassword;
  for (int i = 0; i < 5; ++i) longPassword += randomText(60);
  for (const std::string& password :
       {"KDSYNC " + randomText(32), longPassword, " with  spaces " + randomText(8) + " "}) {
    admin_.reset();
    admin_ = std::make_unique<ThrowawayAdmin>(password);
    ASSERT_TRUE(admin_->ready());
    for (bool noPassword : {true, false}) {
      SCOPED_TRACE(password.substr(0, 12) + (noPassword ? " without asking" : " asked"));
      ASSERT_TRUE(admin_->setRule(noPassword));
      runAsAdmin("RightPasswordWithoutAsking", password);
    }
  }
}

// kd trash with rights reports what happened in the end, not that the first
// try (without rights) was refused.
TEST_F(AdminSession, KdTrashWithRightsReportsTheOutcome) {
  const std::string item = admin_->work() + "/trash-me";
  std::ofstream(item) << "x";
  const std::string kd = admin_->install(KD_TOOL_PATH);
  std::string text;
  EXPECT_EQ(admin_->run({kd, "trash", "--password-fd", "0", item}, admin_->password(), &text), 0)
      << text;
  EXPECT_FALSE(exists(item));
  EXPECT_EQ(text.find("Unable to trash"), std::string::npos) << text;
  EXPECT_EQ(text.find("Permission denied"), std::string::npos) << text;
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
  // Here /proc/self/cwd is the home folder; in the co-process it is "/".
  EXPECT_FALSE(auth->authRemoveFile("/proc/self/cwd" + work_ + "/keep"));
  EXPECT_FALSE(auth->authRemoveFile("/proc/thread-self/cwd" + work_ + "/keep"));
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
  EXPECT_TRUE(processGone(first));
  auth->authEnd();
  EXPECT_TRUE(processGone(second));
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_EQ(auth->authExecTask("/bin/true", {}), -1);
}

TEST_F(AsAdmin, RightPasswordWithoutAsking) {
  auto auth = Access::make(false);
  // sudo reads a password up to its line end: one that holds a line end is
  // refused whole, at once, rather than handed over in part.
  EXPECT_FALSE(auth->authStartWithUser(user_, password_ + "\n" + password_));
  EXPECT_FALSE(auth->isAuthorized());
  ASSERT_TRUE(auth->authStartWithUser(user_, password_));
  EXPECT_EQ(auth->authExecTask("/bin/sh", {"-c", "test \"$(id -u)\" = 0"}, false), 0);
  const int pid = Access::coProcessId(*auth);
  auth->authEnd();
  EXPECT_FALSE(auth->isAuthorized());
  EXPECT_TRUE(processGone(pid));
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
  EXPECT_TRUE(processGone(pid));
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
