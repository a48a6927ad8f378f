// File operations that need root to set up: second volumes (tmpfs mounts of
// our own, one of them full), and the fall-back to administrator rights taken
// by a throwaway ordinary user on root-owned files, through the library and
// through kd with the password on a descriptor.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "FilesFixture.h"
#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "support/Process.h"
#include "support/RunnableCopy.h"
#include "support/ScopedTmpfs.h"
#include "support/ThrowawayAdmin.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

// A tmpfs of our own below the scratch folder.
std::unique_ptr<ScopedTmpfs> volume(const std::string& folder, const std::string& name,
                                    const std::string& size) {
  return std::make_unique<ScopedTmpfs>(folder + "/" + name + "-" + std::to_string(::getpid()),
                                       "size=" + size + ",mode=0755", "kdfiles-test");
}

class SecondVolume : public FilesTest {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs";
    FilesTest::SetUp();
    volume_ = volume(dir_.path(), "vol", "16m");
    if (!volume_->mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  }
  void TearDown() override {
    volume_.reset();
    FilesTest::TearDown();
  }
  std::unique_ptr<ScopedTmpfs> volume_;
};

TEST_F(SecondVolume, AnItemGoesToItsOwnVolumesTrash) {
  const std::string uid = std::to_string(platform_.realUserId());
  std::ofstream(*volume_ / "clip.mov") << "c";
  fs::create_directories(*volume_ / "DCIM/100");
  std::ofstream(*volume_ / "DCIM/100/clip.mov") << "d";
  EXPECT_TRUE(FM::trashFile(*volume_ / "clip.mov"));
  EXPECT_TRUE(FM::trashFile(*volume_ / "DCIM/100/clip.mov"));
  const std::string trash = *volume_ / (".Trash-" + uid);
  EXPECT_EQ(namesIn(trash + "/files"), (std::set<std::string>{"clip.mov", "clip 2.mov"}));
  EXPECT_EQ(readFile(trash + "/files/clip 2.mov"), "d");
  // The record names the item from the volume's top.
  EXPECT_NE(readFile(trash + "/info/clip 2.mov.trashinfo").find("\nPath=DCIM/100/clip.mov\n"),
            std::string::npos);
  EXPECT_FALSE(exists(tmp_ / "Users/bob/Library/Trash/files"));

  // A shared sticky ".Trash" holds one folder per user.
  fs::create_directories(*volume_ / ".Trash");
  ::chmod((*volume_ / ".Trash").c_str(), 01777);
  std::ofstream(*volume_ / "b.mov") << "b";
  EXPECT_TRUE(FM::trashFile(*volume_ / "b.mov"));
  EXPECT_EQ(readFile(*volume_ / (".Trash/" + uid + "/files/b.mov")), "b");
  // Without the sticky bit it is not used.
  ::chmod((*volume_ / ".Trash").c_str(), 0777);
  std::ofstream(*volume_ / "c.mov") << "c";
  EXPECT_TRUE(FM::trashFile(*volume_ / "c.mov"));
  EXPECT_EQ(readFile(trash + "/files/c.mov"), "c");
}

TEST_F(SecondVolume, MovesAcrossVolumesCopyThenRemove) {
  fs::create_directories(*volume_ / "card/sub");
  std::ofstream(*volume_ / "card/sub/clip.mov") << "footage";
  ::symlink("sub/clip.mov", (*volume_ / "card/link").c_str());
  std::ofstream(*volume_ / "single") << "s";
  EXPECT_TRUE(FM::moveFile(*volume_ / "card", dir_ / "card", 0));
  EXPECT_TRUE(FM::moveFile(*volume_ / "single", dir_ / "single"));
  EXPECT_FALSE(exists(*volume_ / "card"));
  EXPECT_EQ(readFile(dir_ / "card/sub/clip.mov"), "footage");
  EXPECT_EQ(fs::read_symlink(dir_ / "card/link"), "sub/clip.mov");
  EXPECT_EQ(readFile(dir_ / "single"), "s");
  // Onto something there: nothing moves, nothing is copied.
  std::ofstream(*volume_ / "single") << "new";
  EXPECT_FALSE(FM::moveFile(*volume_ / "single", dir_ / "single"));
  EXPECT_EQ(readFile(*volume_ / "single"), "new");
  EXPECT_EQ(readFile(dir_ / "single"), "s");
}

TEST_F(SecondVolume, AFullVolumeFailsWithoutAskingAndLeavesNothing) {
  const auto small = volume(dir_.path(), "small", "256k");
  ASSERT_TRUE(small->mounted());
  std::ofstream(dir_ / "big") << std::string(1 << 20, 'x');
  EXPECT_FALSE(FM::copyFile(dir_ / "big", *small / "big"));
  EXPECT_FALSE(FM::lastFailureNeedsRights());
  EXPECT_FALSE(FM::moveFile(dir_ / "big", *small / "big"));
  EXPECT_EQ(FM::fileSize(dir_ / "big"), 1u << 20);
  EXPECT_EQ(namesIn(small->path()), std::set<std::string>());
  EXPECT_EQ(logged(), (Lines{"Error copying file: No space left on device. Authorizing...",
                             "Error moving file: No space left on device."}));
}

// A folder that fills the volume part way through: the copy and the move
// fail, the source keeps every byte, and no half folder is left behind.
TEST_F(SecondVolume, AFolderThatFillsTheVolumeMidwayLeavesTheSourceWhole) {
  const auto small = volume(dir_.path(), "small", "256k");
  ASSERT_TRUE(small->mounted());
  fs::create_directories(dir_ / "card/DCIM/100");
  const std::string clip(100 * 1024, 'c');
  for (const char* name : {"A001.MOV", "A002.MOV", "A003.MOV", "A004.MOV"})
    std::ofstream(dir_ / (std::string("card/DCIM/100/") + name)) << clip;
  auto sourceWhole = [&] {
    for (const char* name : {"A001.MOV", "A002.MOV", "A003.MOV", "A004.MOV"})
      if (readFile(dir_ / (std::string("card/DCIM/100/") + name)) != clip) return false;
    return true;
  };
  EXPECT_FALSE(FM::copyFile(dir_ / "card", *small / "card"));
  EXPECT_FALSE(FM::lastFailureNeedsRights());
  EXPECT_TRUE(sourceWhole());
  EXPECT_EQ(namesIn(small->path()), std::set<std::string>());
  EXPECT_FALSE(FM::moveFile(dir_ / "card", *small / "card"));
  EXPECT_TRUE(sourceWhole());
  EXPECT_EQ(namesIn(small->path()), std::set<std::string>());
  // The volume is usable afterwards: what fits is copied.
  EXPECT_TRUE(FM::copyFile(dir_ / "card/DCIM/100/A001.MOV", *small / "A001.MOV"));
  EXPECT_EQ(readFile(*small / "A001.MOV"), clip);
}

// A mount point is no item of its volume: trashing it is refused before any
// trash folder is made on the volume that holds it.
TEST_F(SecondVolume, AMountPointIsNeverTrashed) {
  const auto card = volume(volume_->path(), "card", "1m");
  ASSERT_TRUE(card->mounted());
  std::ofstream(*card / "clip.mov") << "c";
  const std::set<std::string> before = namesIn(volume_->path());
  EXPECT_FALSE(FM::trashFile(card->path(), false));
  EXPECT_FALSE(FM::trashFile(card->path() + "/", false));
  EXPECT_EQ(namesIn(volume_->path()), before);
  EXPECT_EQ(readFile(*card / "clip.mov"), "c");
}

// --- As an ordinary user ------------------------------------------------------------------

// Runs the kd at `kd` as the user nobody, with a home of its own; kd's exit
// code (127 when it could not be started).
int kdAsNobody(const std::string& kd, std::vector<std::string> args, const std::string& home) {
  return runAsNobody([&] {
    args.insert(args.begin(), kd);
    std::vector<std::string> env = {"HOME=" + home, "PATH=/usr/bin:/bin"};
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    ::execve(argv[0], argv.data(), envp.data());
    return 127;
  });
}

// A copy that fails after it made a read-only folder leaves nothing behind,
// and a tree of the user's own with read-only folders is removed whole.
TEST(AsAUser, ReadOnlyFoldersOfItsOwnAreRemoved) {
  if (::getuid() != 0) GTEST_SKIP() << "needs root to act as the user nobody";
  TempDir dir;
  ::chmod(dir.path().c_str(), 0755);
  // Two folders, taken in the order the copy lists them: the first is
  // complete (and read-only) before the second fails on an unreadable file.
  dir.mkdir("src/p");
  dir.mkdir("src/q");
  std::vector<std::string> order;
  for (const auto& e : fs::directory_iterator(dir / "src")) order.push_back(e.path());
  ASSERT_EQ(order.size(), 2u);
  std::ofstream(order[0] + "/f") << "f";
  ::chmod(order[0].c_str(), 0555);
  std::ofstream(order[1] + "/secret") << "s";
  ::chmod((order[1] + "/secret").c_str(), 0600);
  const std::string out = dir.mkdir("out");
  ASSERT_EQ(::chown(out.c_str(), 65534, 65534), 0);
  // A copy of kd where nobody may run it: the build folder may be closed to it.
  const std::string kd = runnableCopy(KD_TOOL_PATH, dir.path());
  ASSERT_NE(kd, "");

  EXPECT_EQ(kdAsNobody(kd, {"cp", "--no-auth", dir / "src", out + "/dst"}, out), 1);
  std::set<std::string> left = namesIn(out);
  left.erase(".local");
  EXPECT_EQ(left, std::set<std::string>());

  EXPECT_EQ(runAsNobody([&] {
              fs::create_directories(out + "/own/ro/deeper");
              std::ofstream(out + "/own/ro/deeper/f") << "f";
              ::chmod((out + "/own/ro/deeper").c_str(), 0500);
              ::chmod((out + "/own/ro").c_str(), 0555);
              return 0;
            }),
            0);
  EXPECT_EQ(kdAsNobody(kd, {"rm", "--no-auth", out + "/own"}, out), 0);
  EXPECT_FALSE(exists(out + "/own"));
}

// --- The fall-back, taken by an ordinary user -----------------------------------------

class FallBack : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::getuid() != 0) GTEST_SKIP() << "needs root to make a throwaway user";
    if (::access("/usr/bin/sudo", X_OK) != 0 || ::access("/usr/sbin/useradd", X_OK) != 0)
      GTEST_SKIP() << "needs sudo and useradd (scripts/deps.sh)";
    admin_ = std::make_unique<ThrowawayAdmin>("Kd-" + randomText(20) + "!", "AsFileUser");
    ASSERT_TRUE(admin_->ready()) << "could not make the throwaway user";
    // Root-owned files in a root-owned folder: only rights can change them.
    for (const std::string f :
         {"victim", "moveme", "trashme", "kd-victim", "kd-keep", "locked/x"}) {
      fs::create_directories(fs::path(admin_->work() + "/" + f).parent_path());
      std::ofstream(admin_->work() + "/" + f) << f;
    }
    ::chmod((admin_->work() + "/locked").c_str(), 0700);
  }
  std::unique_ptr<ThrowawayAdmin> admin_;
};

TEST_F(FallBack, OnlyAMissingRightTakesIt) {
  std::string text;
  const std::string self = path::append(admin_->bin(), path::lastComponent(selfExecutable()));
  EXPECT_EQ(admin_->run({self, "--gtest_filter=AsFileUser.FallBack"}, admin_->password(), &text), 0)
      << text;
  EXPECT_NE(text.find("[  PASSED  ] 1 test"), std::string::npos) << text;
  EXPECT_FALSE(exists(admin_->work() + "/victim"));
  EXPECT_TRUE(exists(admin_->work() + "/locked/x"));
}

TEST_F(FallBack, KdReadsThePasswordFromADescriptorOnly) {
  const std::string kd = admin_->install(KD_TOOL_PATH);
  std::string text;
  EXPECT_EQ(admin_->run({kd, "rm", "--password-fd", "0", admin_->work() + "/kd-victim"},
                        admin_->password(), &text),
            0)
      << text;
  EXPECT_FALSE(exists(admin_->work() + "/kd-victim"));
  // No terminal and no descriptor: a clear failure, nothing removed.
  text.clear();
  EXPECT_EQ(admin_->run({kd, "rm", admin_->work() + "/kd-keep"}, admin_->password(), &text), 1);
  EXPECT_NE(text.find("--password-fd"), std::string::npos) << text;
  EXPECT_EQ(text.find(admin_->password()), std::string::npos);
  text.clear();
  EXPECT_EQ(admin_->run({kd, "rm", "--no-auth", "--password-fd", "0", admin_->work() + "/kd-keep"},
                        admin_->password(), &text),
            1);
  EXPECT_NE(text.find("Permission denied"), std::string::npos) << text;
  text.clear();
  EXPECT_EQ(
      admin_->run({kd, "rm", "--password-fd", "0", admin_->work() + "/kd-keep"}, "wrong", &text),
      1);
  EXPECT_NE(text.find("refused"), std::string::npos) << text;
  EXPECT_TRUE(exists(admin_->work() + "/kd-keep"));
}

// The user's side, started by FallBack.OnlyAMissingRightTakesIt.
class AsFileUser : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::getenv(kAsAdmin) || ::getuid() == 0)
      GTEST_SKIP() << "runs as the throwaway user, started by the FallBack tests";
    std::getline(std::cin, password_);
    work_ = std::getenv(kWork);
    home_ = std::getenv("HOME");
    user_ = nativePlatform().userName().value_or("");
  }
  std::string password_, work_, home_, user_;
};

TEST_F(AsFileUser, FallBack) {
  KdLog::createNewLog(std::string("kdfiles-test"));
  KdAuthorization& auth = KdAuthorization::sharedController(false);
  std::ofstream(home_ + "/own.txt") << "own";
  std::ofstream(home_ + "/other.txt") << "other";

  // Nothing that rights would not change asks for them.
  EXPECT_TRUE(FM::trashFile(work_ + "/missing"));
  EXPECT_TRUE(FM::removeFile(work_ + "/missing"));
  EXPECT_FALSE(FM::moveFile(home_ + "/own.txt", home_ + "/other.txt"));
  EXPECT_FALSE(FM::lastFailureNeedsRights());
  EXPECT_FALSE(FM::isFolderEmpty(work_ + "/locked"));  // unreadable: may hold anything
  EXPECT_FALSE(FM::removeFolderIfEmpty(work_ + "/locked"));
  EXPECT_FALSE(FM::removeFile(work_ + "/victim", false));
  EXPECT_TRUE(FM::lastFailureNeedsRights());
  EXPECT_FALSE(FM::createDirectory(work_ + "/made", false));
  EXPECT_FALSE(auth.isAuthorized());

  ASSERT_TRUE(auth.authStartWithUser(user_, password_));
  EXPECT_TRUE(FM::removeFile(work_ + "/victim"));
  EXPECT_FALSE(exists(work_ + "/victim"));
  EXPECT_TRUE(FM::createDirectory(work_ + "/made/deep", 10));
  EXPECT_EQ(ownerOf(work_ + "/made/deep"), 0u);
  EXPECT_TRUE(FM::copyFile(home_ + "/own.txt", work_ + "/copied.txt", 10));
  EXPECT_EQ(readFile(work_ + "/copied.txt"), "own");
  EXPECT_FALSE(FM::copyFile(home_ + "/other.txt", work_ + "/copied.txt"));
  EXPECT_EQ(readFile(work_ + "/copied.txt"), "own");
  EXPECT_TRUE(FM::moveFile(work_ + "/moveme", home_ + "/moved", 10));
  EXPECT_EQ(readFile(home_ + "/moved"), "moveme");
  EXPECT_TRUE(FM::trashFile(work_ + "/trashme", 10));
  const std::string trash = home_ + "/.local/share/Trash";
  EXPECT_EQ(readFile(trash + "/files/trashme"), "trashme");
  EXPECT_EQ(ownerOf(trash + "/info/trashme.trashinfo"), ::getuid());

  KdLog::finishWriting();
  const std::string log = readFile(KdLog::availableLogs().front());
  EXPECT_NE(log.find(" - Error removing file: Permission denied. Authorizing...\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" - Error moving file: File exists.\n"), std::string::npos) << log;
  EXPECT_EQ(log.find(password_), std::string::npos);
}

}  // namespace
}  // namespace kd::test
