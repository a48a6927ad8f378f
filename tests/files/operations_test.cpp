// Removing, creating, copying, moving and trashing on real files in a
// temporary folder, as a user whose home (and trash) lies there too.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <set>

#include <gmock/gmock.h>

#include "FilesFixture.h"
#include "common/Path.h"
#include "support/ScopedEnv.h"
#include "tasks/KdTaskEx.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

using Operations = FilesTest;

TEST_F(Operations, RemoveTakesTreesAndLinksButNothingTheyPointAt) {
  const std::string outside = dir_.touch("outside/keep", "k");
  dir_.touch("tree/a/b/c", "c");
  ASSERT_EQ(::symlink(work("outside").c_str(), work("tree/a/link").c_str()), 0);
  ::chmod(work("tree/a/b").c_str(), 0500);  // no write bit: root or not, removable by the owner
  EXPECT_TRUE(FM::removeFile(work("tree")));
  EXPECT_FALSE(exists(work("tree")));
  EXPECT_EQ(readFile(outside), "k");
  // A missing path counts as removed (and trashed), with no message.
  EXPECT_TRUE(FM::removeFile(work("missing"), false));
  EXPECT_TRUE(FM::trashFile(work("missing"), false));
  EXPECT_TRUE(FM::removeFile(work("missing/below"), 0));
  EXPECT_EQ(logged(), Lines());
}

TEST_F(Operations, SystemAndStandardFoldersAreNeverRemovedMovedOrTrashed) {
  const std::string home = tmp_ / "Users/bob";
  dir_.touch("../" + path::lastComponent(tmp_.path()) + "/Users/bob/Library/Preferences/keep", "k");
  for (const std::string& path : {home, home + "/", home + "/Library", home + "/Library/"}) {
    EXPECT_FALSE(FM::removeFile(path)) << path;
    EXPECT_FALSE(FM::trashFile(path)) << path;
    EXPECT_FALSE(FM::moveFile(path, work("moved"))) << path;
  }
  EXPECT_EQ(readFile(home + "/Library/Preferences/keep"), "k");
  EXPECT_EQ(platform_.systemLogMessages().front(),
            "Unable to delete path " + home + " because it is a system directory.");
  // A link named with a trailing slash is the link, not where it leads.
  dir_.touch("target/file", "t");
  ASSERT_EQ(::symlink(work("target").c_str(), work("link").c_str()), 0);
  EXPECT_TRUE(FM::removeFile(work("link") + "/"));
  EXPECT_FALSE(exists(work("link")));
  EXPECT_EQ(readFile(work("target/file")), "t");
}

// A path that ends in "." or ".." names a folder by another name (through a
// link too): it is refused before anything below it goes.
TEST_F(Operations, DotNamesAreRefusedAndNothingBelowThemGoes) {
  dir_.touch("dir/a", "a");
  dir_.touch("dir/x/b", "b");
  dir_.touch("target/t", "t");
  ASSERT_EQ(::symlink(work("target").c_str(), work("link").c_str()), 0);
  const std::set<std::string> before = namesIn(dir_.path(), true);
  for (const char* given : {"dir/.", "dir/./", "link/.", "dir/x/..", "link/..", "dir/x/../"}) {
    EXPECT_FALSE(FM::removeFile(work(given), false)) << given;
    EXPECT_FALSE(FM::trashFile(work(given), false)) << given;
    EXPECT_FALSE(FM::moveFile(work(given), work("moved"), false)) << given;
    EXPECT_EQ(namesIn(dir_.path(), true), before) << given;
  }
}

TEST_F(Operations, CreateDirectoryMakesParentsAndRefusesUnmountedVolumes) {
  EXPECT_TRUE(FM::createDirectory(work("a/b/c")));
  EXPECT_TRUE(FM::isDirectoryAtPath(work("a/b/c")));
  EXPECT_TRUE(FM::createDirectory(work("a/b/c"), 0));  // exists already: fine

  const std::string gone = "/Volumes/KdGone" + std::to_string(::getpid()) + "/x";
  EXPECT_FALSE(FM::createDirectory(gone));
  EXPECT_FALSE(FM::createDirectory(gone, 0));
  EXPECT_FALSE(exists(gone));
  EXPECT_EQ(platform_.systemLogMessages(),
            (std::vector<std::string>{"Unable to create directory. Drive is not mounted.",
                                      "Unable to create directory. Drive is not mounted."}));

  // A file in the way is no matter of rights: the message, no fall-back.
  dir_.touch("file", "f");
  EXPECT_FALSE(FM::createDirectory(work("file/sub")));
  EXPECT_FALSE(FM::lastFailureNeedsRights());
  EXPECT_EQ(logged(), Lines{"Error creating folder: Not a directory. Authorizing..."});
}

TEST_F(Operations, CopyKeepsLinksModesAndTimesAndNeverReplaces) {
  dir_.touch("src/clip.mov", "footage");
  dir_.touch("src/sub/notes.txt", "n");
  ASSERT_EQ(::symlink("sub/notes.txt", work("src/link").c_str()), 0);
  ASSERT_EQ(::symlink("/nonexistent/target", work("src/dangling").c_str()), 0);
  ::chmod(work("src/clip.mov").c_str(), 0640);
  const auto old = secondsAgo(3600);
  ASSERT_TRUE(FM::setModificationDate(old, work("src/clip.mov")));

  EXPECT_TRUE(FM::copyFile(work("src"), work("dst")));
  EXPECT_EQ(readFile(work("dst/clip.mov")), "footage");
  EXPECT_EQ(readFile(work("dst/sub/notes.txt")), "n");
  EXPECT_EQ(fs::read_symlink(work("dst/link")), "sub/notes.txt");
  EXPECT_EQ(fs::read_symlink(work("dst/dangling")), "/nonexistent/target");
  struct stat st {};
  ASSERT_EQ(::stat(work("dst/clip.mov").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  EXPECT_EQ(FM::modificationDateForFile(work("dst/clip.mov")), old);

  // Onto something that exists: nothing replaced, nothing left over.
  dir_.touch("other/clip.mov", "other");
  EXPECT_FALSE(FM::copyFile(work("src/clip.mov"), work("other/clip.mov")));
  EXPECT_FALSE(FM::copyFile(work("src"), work("dst"), 0));
  EXPECT_EQ(readFile(work("other/clip.mov")), "other");
  EXPECT_EQ(namesIn(work("other")), std::set<std::string>{"clip.mov"});
  EXPECT_FALSE(FM::copyFile(std::nullopt, work("x")));
  EXPECT_FALSE(FM::copyFile(work("src"), std::nullopt));
  EXPECT_FALSE(FM::copyFile(work("missing"), work("x")));
  EXPECT_FALSE(FM::copyFile(work("src"), work("src/sub/inside")));
  EXPECT_FALSE(exists(work("src/sub/inside")));
  EXPECT_EQ(logged(), (Lines{"Error copying file: File exists. Authorizing...",
                             "Error copying file: File exists. Authorizing...",
                             "Error copying file: source path is nil",
                             "Error copying file " + work("src") + ": destination path is nil",
                             "Error copying file: No such file or directory. Authorizing...",
                             "Error copying file: Invalid argument. Authorizing..."}));
}

TEST_F(Operations, MoveNeverReplacesAndRenamesCaseThroughAFreeName) {
  dir_.touch("a.mov", "a");
  dir_.touch("b.mov", "b");
  EXPECT_FALSE(FM::moveFile(work("a.mov"), work("b.mov")));
  EXPECT_FALSE(FM::moveFile(work("a.mov"), work("b.mov"), 0));
  EXPECT_EQ(readFile(work("a.mov")), "a");
  EXPECT_EQ(readFile(work("b.mov")), "b");
  EXPECT_TRUE(FM::moveFile(work("a.mov"), work("c.mov"), 0));
  EXPECT_EQ(readFile(work("c.mov")), "a");
  EXPECT_FALSE(exists(work("a.mov")));
  // Only the case changes; a name "Clip 2.mov" that is taken is passed over.
  dir_.touch("Clip.mov", "clip");
  dir_.touch("clip 2.mov", "taken");
  EXPECT_TRUE(FM::moveFile(work("Clip.mov"), work("clip.mov")));
  EXPECT_EQ(readFile(work("clip.mov")), "clip");
  EXPECT_FALSE(exists(work("Clip.mov")));
  EXPECT_EQ(readFile(work("clip 2.mov")), "taken");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(FM::moveFile(work("clip.mov"), work("CLIP.MOV"), 30));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(readFile(work("CLIP.MOV")), "clip");
  EXPECT_FALSE(FM::moveFile(work("missing"), work("x")));
  // Failures other than rights never go further than the message.
  EXPECT_EQ(logged(), (Lines{"Error moving file: File exists.", "Error moving file: File exists.",
                             "Error moving file: No such file or directory."}));
}

// A move that is refused changes nothing, locks included: nothing is ever
// replaced, so nothing at the destination is unlocked.
TEST_F(Operations, ARefusedMoveLeavesTheDestinationLocked) {
  dir_.touch("a.mov", "a");
  const struct {
    const char* destination;
    const char* locked;
  } cases[] = {{"b.mov", "b.mov"}, {"into", "into/a.mov"}};
  for (const auto& c : cases) {
    dir_.touch(c.locked, "keep");
    FM::lockFile(work(c.locked));
    ASSERT_TRUE(FM::isFileLocked(work(c.locked))) << c.locked;
    EXPECT_FALSE(FM::moveFile(work("a.mov"), work(c.destination), false)) << c.destination;
    EXPECT_TRUE(FM::isFileLocked(work(c.locked))) << c.locked;
    FM::unlockFile(work(c.locked));
  }
  EXPECT_EQ(readFile(work("a.mov")), "a");
}

TEST_F(Operations, TimeoutFormsWaitOnlyForWhatTheyDid) {
  dir_.touch("src/1", "1");
  dir_.touch("src/2", "2");
  dir_.touch("dst/2", "taken");
  // A timeout of 0 looks once; a failed copy is not waited for.
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(FM::copyContentsOfDirectory(work("src"), work("dst"), 3));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(readFile(work("dst/2")), "taken");
  EXPECT_TRUE(FM::copyContentsOfDirectory(work("src"), work("dst2"), 0) == false);
  ASSERT_TRUE(FM::createDirectory(work("dst2"), 0));
  EXPECT_TRUE(FM::copyContentsOfDirectory(work("src"), work("dst2"), 0));
  EXPECT_EQ(readFile(work("dst2/1")), "1");
  EXPECT_TRUE(FM::copyContentsOfDirectory(work("missing"), work("dst3"), 0));
  EXPECT_TRUE(FM::trashFile(work("dst2/1"), 0));
  EXPECT_FALSE(exists(work("dst2/1")));
}

TEST_F(Operations, FolderEmptinessIgnoresOnlyTheDesktopsOwnFiles) {
  const struct {
    std::vector<std::string> files, folders;
    bool empty;
  } cases[] = {
      {{}, {}, true},
      {{".DS_Store"}, {}, true},
      {{"Icon\r"}, {}, true},
      {{".DS_Store", "Icon\r"}, {"sub/deeper"}, true},
      {{"sub/deeper/.DS_Store"}, {}, true},
      {{"sub/deeper/clip.mov"}, {}, false},
      {{"Icon"}, {}, false},
      {{".DS_Store", "x"}, {}, false},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string folder = dir_.mkdir("f" + std::to_string(n++));
    for (const auto& f : c.files) dir_.touch(path::append(path::lastComponent(folder), f));
    for (const auto& d : c.folders) dir_.mkdir(path::append(path::lastComponent(folder), d));
    EXPECT_EQ(FM::isFolderEmpty(folder), c.empty) << folder;
  }
  EXPECT_TRUE(FM::isFolderEmpty(work("missing")));
  EXPECT_FALSE(FM::isFolderEmpty(dir_.touch("plain", "p")));  // a file is no empty folder
  // A link below counts as an entry, a dangling one too; it is never entered.
  dir_.mkdir("linked/empty");
  ASSERT_EQ(::symlink(work("linked/empty").c_str(), work("f0/link").c_str()), 0);
  EXPECT_FALSE(FM::isFolderEmpty(work("f0")));

  EXPECT_TRUE(FM::removeFolderIfEmpty(work("f3")));
  EXPECT_FALSE(exists(work("f3")));
  EXPECT_FALSE(FM::removeFolderIfEmpty(work("f5")));
  EXPECT_TRUE(exists(work("f5/sub/deeper/clip.mov")));
}

TEST_F(Operations, MirroredStructuresAndEmptyFiles) {
  dir_.touch("card/DCIM/100/clip.mov", "c");
  const std::string dest = dir_.mkdir("dest");
  const std::string card = work("card");
  EXPECT_EQ(FM::createDirectoryStructure(card + "/DCIM/100/clip.mov", dest),
            dest + card + "/DCIM/100");
  EXPECT_TRUE(FM::isDirectoryAtPath(dest + card + "/DCIM/100"));
  EXPECT_EQ(FM::createDirectoryStructure(card + "/DCIM", dest), dest + card + "/DCIM");

  // The temporary file is made in the platform's temporary folder.
  struct TemporaryHere : ForwardingPlatform {
    TemporaryHere(Platform& p, std::string folder)
        : ForwardingPlatform(p), folder_(std::move(folder)) {}
    std::string temporaryDirectory() override { return folder_; }
    std::string folder_;
  } here(platform_, dir_.mkdir("tmp"));
  setPlatformForTesting(&here);
  EXPECT_TRUE(FM::createEmptyFile(work("empty")));
  EXPECT_EQ(FM::fileSize(work("empty")), 0u);
  EXPECT_TRUE(FM::isDirectoryAtPath(work(".")));
  dir_.touch("full", "data");
  EXPECT_FALSE(FM::createEmptyFile(work("full")));
  EXPECT_EQ(readFile(work("full")), "data");
  EXPECT_TRUE(namesIn(work("tmp")).empty());
  setPlatformForTesting(&platform_);
}

TEST_F(Operations, TrashWritesRecordsAndNumbersClashingNames) {
  for (const char* name : {"1/clip.mov", "2/clip.mov", "3/notes", "4/notes"})
    dir_.touch(name, name);
  for (const char* name : {"1/clip.mov", "2/clip.mov", "3/notes", "4/notes"})
    EXPECT_TRUE(FM::trashFile(work(name))) << name;
  EXPECT_EQ(namesIn(trash() + "/files"),
            (std::set<std::string>{"clip.mov", "clip 2.mov", "notes", "notes 2"}));
  EXPECT_EQ(readFile(trash() + "/files/clip 2.mov"), "2/clip.mov");
  EXPECT_THAT(readFile(trash() + "/info/clip 2.mov.trashinfo"),
              ::testing::MatchesRegex(
                  "\\[Trash Info\\]\nPath=" + work("2/clip.mov") +
                  "\nDeletionDate=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
  // A folder's entries, one by one, the folder itself staying.
  dir_.touch("full/a", "a");
  dir_.touch("full/b/c", "c");
  EXPECT_TRUE(FM::trashDirectoryContents(work("full")));
  EXPECT_EQ(namesIn(work("full")), std::set<std::string>());
  EXPECT_TRUE(FM::trashDirectoryContents(work("missing")));
  EXPECT_FALSE(FM::trashDirectoryContents(dir_.touch("plain", "p")));
}

TEST_F(Operations, TrashByTypeOrNameStaysInsideItsTree) {
  dir_.touch("card/A.MOV", "a");
  dir_.touch("card/sub/b.mov", "b");
  dir_.touch("card/sub/b.txt", "t");
  dir_.touch("card/folder.mov/c.mov", "c");
  dir_.touch("card/sub/Thumbs.db", "t");
  dir_.touch("outside/d.mov", "d");
  dir_.touch("outside/Thumbs.db", "t");
  ASSERT_EQ(::symlink(work("outside").c_str(), work("card/link").c_str()), 0);
  ASSERT_EQ(::symlink("/nonexistent", work("card/dangling.mov").c_str()), 0);

  std::vector<std::string> trashed = FM::trashFilesOfType("mov", work("card"));
  EXPECT_EQ(std::set<std::string>(trashed.begin(), trashed.end()),
            (std::set<std::string>{work("card/A.MOV"), work("card/sub/b.mov"),
                                   work("card/folder.mov/c.mov"), work("card/dangling.mov")}));
  EXPECT_TRUE(FM::isDirectoryAtPath(work("card/folder.mov")));  // a folder is only entered
  EXPECT_TRUE(exists(work("card/sub/b.txt")));
  EXPECT_TRUE(exists(work("outside/d.mov")));
  EXPECT_EQ(FM::trashFilesNamed("Thumbs.db", work("card")),
            std::vector<std::string>{work("card/sub/Thumbs.db")});
  EXPECT_TRUE(exists(work("outside/Thumbs.db")));
  EXPECT_TRUE(FM::trashFilesOfType("", work("card")).empty());
  EXPECT_TRUE(FM::trashFilesNamed("x", work("missing")).empty());
}

// The desktop's own tools read what the trash writes. They need a session bus
// for their trash back end.
TEST_F(Operations, TheDesktopListsAndRestoresWhatWasTrashed) {
  if (::access("/usr/bin/gio", X_OK) != 0 || ::access("/usr/bin/dbus-run-session", X_OK) != 0)
    GTEST_SKIP() << "needs gio and dbus-run-session (scripts/deps.sh)";
  dir_.touch("clips/Café 1.mov", "one");
  dir_.touch("clips/two.mov", "two");
  ASSERT_TRUE(FM::trashFile(work("clips/Café 1.mov")));
  ASSERT_TRUE(FM::trashFile(work("clips/two.mov")));
  const std::string data = tmp_ / "Users/bob/Library";
  auto gio = [&](const std::string& arguments) {
    return KdTaskEx::stringFromTask(
        "/usr/bin/env",
        {"HOME=" + dir_.path(), "XDG_DATA_HOME=" + data, "LC_ALL=C.UTF-8",
         "/usr/bin/dbus-run-session", "--", "/bin/sh", "-c", "gio trash " + arguments + " 2>&1"},
        KdTaskEx::UTF8StringEncoding, 30.0);
  };
  const std::string listed = gio("--list");
  if (listed.find("Operation not supported") != std::string::npos)
    GTEST_SKIP() << "gio has no trash back end here (gvfs): " << listed;
  EXPECT_NE(listed.find("trash:///two.mov\t" + work("clips/two.mov")), std::string::npos) << listed;
  EXPECT_NE(listed.find("trash:///Caf%C3%A9%201.mov\t"), std::string::npos) << listed;
  gio("--restore trash:///two.mov");
  EXPECT_EQ(readFile(work("clips/two.mov")), "two");
  EXPECT_FALSE(exists(trash() + "/files/two.mov"));
}

}  // namespace
}  // namespace kd::test
