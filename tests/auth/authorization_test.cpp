// KdAuthorization without a real session: the shared instance, the root
// process (tools run directly), the user without a way to ask, and the
// refusals of the guarded commands.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>

#include "auth/AuthTestSupport.h"
#include "common/Path.h"
#include "support/ChildMode.h"
#include "support/ScopedEnv.h"
#include "support/ScopedTmpfs.h"
#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

using Access = KdAuthorizationTestAccess;
using ::testing::Contains;

TEST(KdAuthorizationShared, FirstCallDecidesTheModeAndThereIsNeverASecond) {
  KdAuthorization& shared = KdAuthorization::sharedController(false);
  EXPECT_EQ(&KdAuthorization::sharedController(), &shared);
  EXPECT_EQ(&KdAuthorization::sharedController(true), &shared);
  EXPECT_FALSE(shared.hasGUI());
  EXPECT_EQ(KdAuthorization::allocate(), nullptr);
}

TEST(KdAuthorizationRoot, AuthorizedFromTheStartWithoutAnySession) {
  CountingPrivilege counting;
  PrivilegeFakePlatform mac(counting);
  mac.setUid(0);
  ScopedPlatform scoped(mac);
  for (bool gui : {true, false}) {
    SCOPED_TRACE(gui);
    auto auth = Access::make(gui);
    EXPECT_TRUE(auth->authStart());
    EXPECT_TRUE(auth->authStartWithUser(std::nullopt, std::nullopt));
    EXPECT_TRUE(auth->isAuthorized());
    EXPECT_TRUE(auth->canAuthorize());
    EXPECT_EQ(auth->userDirectory(), std::nullopt);
    auth->authEnd();
    EXPECT_TRUE(auth->isAuthorized());
  }
  EXPECT_EQ(counting.started, 0);
}

TEST(KdAuthorizationUser, WithNoWayToAskNothingStartsAndTheLauncherSaysNotAuthorized) {
  CountingPrivilege counting;
  PrivilegeFakePlatform mac(counting);
  ScopedPlatform scoped(mac);
  ScopedEnv noDesktop({"DISPLAY", "WAYLAND_DISPLAY", "SUDO_ASKPASS"}, {});
  TempDir tmp;
  const std::string empty = tmp.mkdir("empty");

  for (bool gui : {false, true}) {
    SCOPED_TRACE(gui);
    auto auth = Access::make(gui);
    EXPECT_EQ(auth->canAuthorize(), gui);
    EXPECT_EQ(auth->userDirectory(), "/Users/bob");
    EXPECT_FALSE(auth->authStart());
    EXPECT_FALSE(auth->isAuthorized());
    EXPECT_EQ(auth->authExecTask("/bin/true", {}), -1);
    EXPECT_FALSE(auth->authRemoveFile(tmp / "anything"));
    // Nothing to do needs no rights.
    EXPECT_TRUE(auth->authTrashFolderContents(empty));
    EXPECT_TRUE(auth->authMoveFolderContents(empty, tmp / "elsewhere"));
  }
  auto messages = mac.systemLogMessages();
  EXPECT_EQ(std::count(messages.begin(), messages.end(), "Unable to authorize"), 6);
  EXPECT_EQ(counting.started, 0);

  auto auth = Access::make(false);
  EXPECT_EQ(auth->authExecTask("/nonexistent/tool", {"x"}, false), -2);
  EXPECT_FALSE(auth->authMoveFile(tmp / "missing", tmp / "b"));
  EXPECT_FALSE(auth->authCopyFile(tmp / "missing", tmp / "b"));
  EXPECT_FALSE(auth->authMoveFile(std::nullopt, "/x"));
  EXPECT_FALSE(auth->authMoveFile("/x", std::nullopt));
  EXPECT_FALSE(auth->authCopyFile(std::nullopt, "/x"));
  EXPECT_FALSE(auth->authCopyFile("/x", std::nullopt));
  messages = mac.systemLogMessages();
  messages.erase(messages.begin(), messages.begin() + 6);
  EXPECT_EQ(
      messages,
      (std::vector<std::string>{
          "Unable to execute task: path /nonexistent/tool doesn't exist",
          "Error in authMoveFile: old path is null", "Error in authMoveFile: new path is null",
          "Error in authCopyFile: old path is null", "Error in authCopyFile: new path is null"}));
}

TEST(KdAuthorizationGuard, EachGuardedCommandRefusesSystemFoldersWithItsOwnMessage) {
  PrivilegeFakePlatform mac(nativePlatform().privilege());
  ScopedPlatform scoped(mac);
  ScopedEnv noDesktop({"DISPLAY", "WAYLAND_DISPLAY", "SUDO_ASKPASS"}, {});
  auto auth = Access::make(false);
  TempDir tmp;
  const std::string elsewhere = tmp / "to";

  struct Command {
    const char* message;
    std::function<bool(const std::string&)> run;
  };
  const Command commands[] = {
      {"Unable to delete path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authRemoveFile(p); }},
      {"Unable to trash path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authTrashFile(p); }},
      {"Unable to trash path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authTrashFile(p, true); }},
      {"Unable to trash folder contents of path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authTrashFolderContents(p); }},
      {"Unable to move contents of path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authMoveFolderContents(p, elsewhere); }},
      {"Unable to move path %s because it is a system directory.",
       [&](const std::string& p) { return auth->authMoveFile(p, elsewhere); }},
  };
  // The literal guard's ("/usr", the Library folder, the home) and where the
  // text leads ("/bin/" is /bin, "/usr/../etc" is /etc).
  for (const std::string path : {"/usr", "/Users/bob/Library", "/Users/bob", "/bin/", "/usr/../etc",
                                 "/home/", "/", "/usr/bin", "/var/log/"}) {
    for (const Command& command : commands) {
      SCOPED_TRACE(path + " / " + command.message);
      const std::size_t before = mac.systemLogMessages().size();
      EXPECT_FALSE(command.run(path));
      std::string expected = command.message;
      expected.replace(expected.find("%s"), 2, path);
      EXPECT_EQ(mac.systemLogMessages().size(), before + 1);
      EXPECT_THAT(mac.systemLogMessages(), Contains(expected));
    }
  }

  // Only the source of a move is judged; copy and create judge nothing. Each
  // then needs rights, which this object cannot get.
  auto refusals = [&] {
    int n = 0;
    for (const auto& m : mac.systemLogMessages())
      n += m.find("because it is a system directory") != std::string::npos;
    return n;
  };
  const int before = refusals();
  const std::string file = tmp.touch("file", "x");
  EXPECT_FALSE(auth->authMoveFile(file, "/usr/local/x"));
  EXPECT_FALSE(auth->authMoveFile(file, "/usr"));
  EXPECT_FALSE(auth->authCopyFile("/usr", tmp / "copy"));
  EXPECT_FALSE(auth->authCreateDir("/usr"));
  EXPECT_EQ(refusals(), before);
  EXPECT_TRUE(exists(file));
}

TEST(KdAuthorizationGuard, ProtectedTargetsAreJudgedWhereTheyLead) {
  TempDir tmp;
  const std::string home = tmp.mkdir("home"), work = tmp.mkdir("work");
  FakeMacPlatform identity;
  identity.setUid(1000);
  identity.setHomesRoot(tmp.path());
  identity.setUser("home");
  ScopedPlatform scoped(identity);
  ::symlink("/usr", (work + "/usr-link").c_str());
  ::symlink(home.c_str(), (work + "/home-link").c_str());
  ::symlink("/proc/self/cwd", (work + "/magic").c_str());

  for (const auto& [path, protectedTarget] : std::vector<std::pair<std::string, bool>>{
           {"/", true},
           {"//", true},
           {"/bin/", true},
           {"/usr/../etc", true},
           {"/usr/./lib/", true},
           {"/home/", true},
           {"/home/someone", true},
           {"/lib64", true},
           {"/usr/share", true},
           {"/var/tmp/", true},
           {"/opt", true},
           {home, true},
           {home + "/", true},
           {home + "/Library", true},
           {home + "/Library/Logs", true},
           {home + "/Library/Logs/x", false},
           {home + "/Desktop/..", true},
           {work + "/usr-link/", true},    // a trailing slash follows the link
           {work + "/usr-link/..", true},  // the kernel's "..": the link target's parent
           {work + "/home-link/", true},
           {work + "/usr-link", false},  // the link itself
           {work + "/x", false},
           {work, false},
           {"/usr/share/doc/x", false},
           {"/usr/local/share/x", false},
           // Links of the kernel's trees lead elsewhere in the co-process.
           {"/proc/self/cwd" + work + "/x", true},
           {"/proc/thread-self/cwd" + work + "/x", true},
           {"/dev/fd/3/x", true},
           {"/dev/shm", true},
           {"/dev/shm/clip.mov", false},  // the shared-memory tmpfs holds plain files
           {work + "/magic" + work + "/x", true},
           {work + "/magic", false},  // the link itself
           {"", true},
       }) {
    EXPECT_EQ(KdAuthorization::isProtectedTarget(path), protectedTarget) << path;
  }
}

int printHelperPath(const std::vector<std::string>&) {
  std::printf("%s", KdAuthorization::privilegedHelperPath().value_or("none").c_str());
  return 0;
}
KD_CHILD_MODE("helper-path", printHelperPath);

TEST(KdAuthorizationHelper, FoundBesideTheProgramUnlessOthersCouldChangeIt) {
  TempDir tmp;
  const std::string bin = tmp.mkdir("bin"), self = selfExecutable();
  const std::string program = bin + "/tests", helper = bin + "/kd-privileged";
  std::filesystem::copy_file(self, program);
  std::filesystem::copy_file(path::deletingLastComponent(self) + "/kd-privileged", helper);
  auto found = [&] {
    return KdTaskEx::stringFromTask(program, {"--kd-child", "helper-path"},
                                    KdTaskEx::UTF8StringEncoding);
  };
  for (const auto& [helperMode, folderMode, besideIsFound] :
       {std::tuple{0755, 0755, true}, std::tuple{0700, 0700, true}, std::tuple{0775, 0755, false},
        std::tuple{0757, 0755, false}, std::tuple{0755, 0777, false},
        std::tuple{0644, 0755, false}}) {
    SCOPED_TRACE(std::to_string(helperMode) + " " + std::to_string(folderMode));
    ::chmod(helper.c_str(), helperMode);
    ::chmod(bin.c_str(), folderMode);
    EXPECT_EQ(found() == helper, besideIsFound) << found();
  }
  ::chmod(bin.c_str(), 0755);
}

// Tools of a root process run directly and are waited for; nothing starts a
// session.
class RootCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: the tools act on real files";
    mac_.setUid(0);
    mac_.setHomesRoot(tmp_.mkdir("Users"));
    tmp_.mkdir("Users/bob");
    work_ = tmp_.mkdir("work");
    mac_.setCurrentDirectory(work_);
    scoped_ = std::make_unique<ScopedPlatform>(mac_);
    auth_ = Access::make(true);
  }
  void TearDown() override {
    auth_.reset();
    scoped_.reset();
    EXPECT_EQ(counting_.started, 0);
  }
  std::string trashFiles() const { return tmp_ / "Users/bob/Library/Trash/files"; }

  CountingPrivilege counting_;
  PrivilegeFakePlatform mac_{counting_};
  TempDir tmp_;
  std::string work_;
  std::unique_ptr<ScopedPlatform> scoped_;
  Access::Owned auth_;
};

TEST_F(RootCommands, TheLauncherWaitsOrNot) {
  EXPECT_EQ(auth_->authExecTask("/bin/true", {}, false), 0);
  EXPECT_EQ(auth_->authExecTask("/bin/false", {}, false), 1);
  EXPECT_EQ(auth_->authExecTask("/bin/false", {}), 0);  // started is all it says
  const std::string made = work_ + "/async";
  EXPECT_EQ(auth_->authExecTask("/usr/bin/touch", {made}), 0);
  EXPECT_TRUE(waitUntil([&] { return exists(made); }));
}

TEST_F(RootCommands, FileCommandsSucceedOnlyWhenTheirToolDid) {
  const std::string a = tmp_.touch("work/a", "A");
  const std::string rf = tmp_.touch("work/-rf", "x"), keep = tmp_.touch("work/keep/k", "k");
  // A name that looks like an option is a file, relative or not.
  EXPECT_TRUE(auth_->authRemoveFile("-rf"));
  EXPECT_FALSE(exists(rf));
  tmp_.touch("work/-rf", "x");
  EXPECT_TRUE(auth_->authRemoveFile(rf));
  EXPECT_FALSE(exists(rf));
  EXPECT_TRUE(exists(keep));

  EXPECT_FALSE(auth_->authMoveFile(a, work_ + "/missing-folder/a"));
  EXPECT_TRUE(exists(a));
  EXPECT_TRUE(auth_->authMoveFile(a, work_ + "/b"));
  EXPECT_EQ(readFile(work_ + "/b"), "A");
  ASSERT_EQ(::setxattr((work_ + "/b").c_str(), "user.xdg.tags", "A", 1, 0), 0);
  EXPECT_TRUE(auth_->authCopyFile(work_ + "/b", work_ + "/c"));
  EXPECT_EQ(readFile(work_ + "/c"), "A");
  char tag[8] = {};  // labels and tags go with the copy
  EXPECT_EQ(::getxattr((work_ + "/c").c_str(), "user.xdg.tags", tag, sizeof tag), 1);
  EXPECT_FALSE(auth_->authCopyFile(work_ + "/b", work_ + "/missing-folder/c"));
  // Nothing is replaced, nor moved or copied into a folder of the name.
  const std::string other = tmp_.touch("work/other", "O");
  tmp_.mkdir("work/folder");
  EXPECT_FALSE(auth_->authMoveFile(other, work_ + "/b"));
  EXPECT_FALSE(auth_->authCopyFile(other, work_ + "/b"));
  EXPECT_FALSE(auth_->authMoveFile(other, work_ + "/folder"));
  EXPECT_FALSE(auth_->authCopyFile(other, work_ + "/folder"));
  EXPECT_EQ(readFile(work_ + "/b") + readFile(other), "AO");
  EXPECT_TRUE(std::filesystem::is_empty(work_ + "/folder"));

  EXPECT_TRUE(auth_->authCreateDir(work_ + "/d/e"));
  EXPECT_TRUE(auth_->authCreateDir(work_ + "/d/e"));
  EXPECT_FALSE(auth_->authCreateDir(work_ + "/b/e"));  // below a file

  tmp_.touch("work/from/x", "x");
  tmp_.touch("work/from/y", "y");
  EXPECT_TRUE(auth_->authMoveFolderContents(work_ + "/from", work_ + "/to-missing") == false);
  tmp_.mkdir("work/to");
  EXPECT_TRUE(auth_->authMoveFolderContents(work_ + "/from", work_ + "/to"));
  EXPECT_EQ(readFile(work_ + "/to/x") + readFile(work_ + "/to/y"), "xy");

  // Onto another volume the move copies; a volume mounted at the path to
  // remove is not emptied through it.
  ScopedTmpfs volume(tmp_ / "volume", "size=1m");
  ASSERT_TRUE(volume.mounted());
  EXPECT_TRUE(auth_->authMoveFile(work_ + "/c", volume / "c"));
  EXPECT_EQ(readFile(volume / "c"), "A");
  EXPECT_FALSE(exists(work_ + "/c"));
  EXPECT_FALSE(auth_->authRemoveFile(volume.path()));
  EXPECT_TRUE(exists(volume / "c"));
}

TEST_F(RootCommands, TrashNamesThatClashGetTheTimeAndNothingIsReplaced) {
  tmp_.touch("work/1/clip.mov", "first");
  tmp_.touch("work/2/clip.mov", "second");
  tmp_.touch("work/3/clip.mov", "third");
  tmp_.touch("work/1/notes", "n1");
  tmp_.touch("work/2/notes", "n2");
  for (const char* item : {"1/clip.mov", "2/clip.mov", "3/clip.mov", "1/notes", "2/notes"})
    EXPECT_TRUE(auth_->authTrashFile(work_ + "/" + item)) << item;

  std::map<std::string, std::string> trashed;
  for (const auto& entry : std::filesystem::directory_iterator(trashFiles()))
    trashed[entry.path().filename()] = readFile(entry.path());
  ASSERT_EQ(trashed.size(), 5u);
  EXPECT_EQ(trashed["clip.mov"], "first");
  EXPECT_EQ(trashed["notes"], "n1");
  std::set<std::string> contents;
  for (const auto& [name, text] : trashed) {
    contents.insert(text);
    if (name == "clip.mov" || name == "notes") continue;
    EXPECT_TRUE(std::regex_match(name, std::regex(R"((clip_\d{14}(_2)?\.mov|notes_\d{14}\.))")))
        << name;
    EXPECT_TRUE(exists(trashFiles() + "/../info/" + name + ".trashinfo")) << name;
  }
  EXPECT_EQ(contents.size(), 5u);
  EXPECT_THAT(readFile(trashFiles() + "/../info/clip.mov.trashinfo"),
              ::testing::MatchesRegex("\\[Trash Info\\]\nPath=" + work_ +
                                      "/1/clip.mov\nDeletionDate=[0-9T:-]{19}\n"));

  // On the root account with deleting asked for, the trash path is removed
  // and the item stays where it is.
  const std::string stays = tmp_.touch("work/4/clip.mov", "fourth");
  EXPECT_TRUE(auth_->authTrashFile(stays, true));
  EXPECT_TRUE(exists(stays));
  EXPECT_EQ(readFile(trashFiles() + "/clip.mov"), "first");

  tmp_.touch("work/full/a", "a");
  tmp_.touch("work/full/b", "b");
  EXPECT_TRUE(auth_->authTrashFolderContents(work_ + "/full"));
  EXPECT_TRUE(std::filesystem::is_empty(work_ + "/full"));
  EXPECT_EQ(readFile(trashFiles() + "/a"), "a");
  tmp_.touch("work/full/c", "c");
  EXPECT_TRUE(auth_->authTrashFolderContents(work_ + "/full", true));
  EXPECT_FALSE(exists(work_ + "/full/c"));
  EXPECT_FALSE(exists(trashFiles() + "/c"));
}

}  // namespace
}  // namespace kd::test
