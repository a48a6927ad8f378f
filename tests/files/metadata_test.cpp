#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>

#include "FilesFixture.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

// Whether the scratch folder's file system keeps "user." attributes.
bool userAttributesWork(const std::string& file) {
  if (::setxattr(file.c_str(), "user.kd-probe", "1", 1, 0) != 0) return false;
  ::removexattr(file.c_str(), "user.kd-probe");
  return true;
}

std::string rawAttr(const std::string& path, const char* name) {
  char buf[512];
  ssize_t n = ::getxattr(path.c_str(), name, buf, sizeof buf);
  return n < 0 ? "<none>" : std::string(buf, static_cast<std::size_t>(n));
}

TEST(LabelColors, TheTable) {
  using C = FM::Color;
  const std::optional<C> expected[] = {std::nullopt,
                                       C{0.0, 0.0, 0.72, 1.0},
                                       C{0.2056, 0.5, 0.85, 1.0},
                                       C{0.7917, 0.26, 0.86, 1.0},
                                       C{0.5789, 0.56, 0.98, 1.0},
                                       C{0.1388, 0.54, 0.95, 1.0},
                                       C{0.0083, 0.54, 1.0, 1.0},
                                       C{0.0888, 0.52, 0.98, 1.0},
                                       std::nullopt};
  for (long i = 0; i <= 8; ++i) EXPECT_EQ(FM::finderColorForColorIndex(i), expected[i]) << i;
  EXPECT_EQ(FM::finderColorForColorIndex(-1), std::nullopt);
}

TEST_F(FilesTest, LabelsRoundTripAndShowAsTags) {
  const std::string file = dir_.touch("clip.mov");
  if (!userAttributesWork(file)) GTEST_SKIP() << "no user attributes on " << dir_.path();
  EXPECT_EQ(FM::finderColorIndexForPath(file), 0);
  EXPECT_EQ(FM::finderColorForPath(file), std::nullopt);
  ::setxattr(file.c_str(), "user.xdg.tags", "work,red", 8, 0);
  FM::setFinderColorIndex(2, file);
  EXPECT_EQ(FM::finderColorIndexForPath(file), 2);
  EXPECT_EQ(FM::finderColorForPath(file), FM::finderColorForColorIndex(2));
  EXPECT_EQ(rawAttr(file, "user.xdg.tags"), "work,green") << "other tags stay, one colour";
  FM::setFinderColorIndex(9, file);  // not a label: ignored
  FM::setFinderColorIndex(3, std::nullopt);
  EXPECT_EQ(FM::finderColorIndexForPath(file), 2);
  FM::setFinderColorIndex(0, file);
  EXPECT_EQ(FM::finderColorIndexForPath(file), 0);
  EXPECT_EQ(rawAttr(file, "user.xdg.tags"), "work");
  EXPECT_EQ(FM::finderColorIndexForPath(dir_ / "missing"), 0);
}

TEST_F(FilesTest, MetadataValues) {
  const std::string file = dir_.touch("clip.mov");
  if (!userAttributesWork(file)) GTEST_SKIP() << "no user attributes on " << dir_.path();
  EXPECT_TRUE(FM::setMetadataValue("Day 1 – A", "com.quillfen.reel", file));
  EXPECT_EQ(rawAttr(file, "user.com.quillfen.reel"), "Day 1 – A") << "no name space: user.";
  EXPECT_EQ(FM::metadataValueForKey("com.quillfen.reel", file), "Day 1 – A");
  EXPECT_EQ(FM::metadataValueForKey("user.com.quillfen.reel", file), "Day 1 – A");
  EXPECT_EQ(FM::metadataValueForKey("com.quillfen.none", file), std::nullopt);
  const std::string longest(255, 'x'), tooLong(300, 'y');
  EXPECT_TRUE(FM::setMetadataValue(longest, "long", file));
  EXPECT_EQ(FM::metadataValueForKey("long", file), longest);
  EXPECT_TRUE(FM::setMetadataValue(tooLong, "long", file));
  EXPECT_EQ(FM::metadataValueForKey("long", file), std::nullopt) << "never a cut value";
  EXPECT_TRUE(FM::setMetadataValue("", "empty", file));
  EXPECT_EQ(FM::metadataValueForKey("empty", file), std::nullopt);
  EXPECT_FALSE(FM::setMetadataValue("v", "k", dir_ / "missing"));
  EXPECT_EQ(platform_.systemLogMessages(),
            (Lines{"buffer val: 11", "buffer val: 11", "buffer val: -1",
                   "Error retrieving file attribute: " + std::to_string(ENODATA), "buffer val: 255",
                   "buffer val: 300", "buffer val: 0",
                   "Error setting extended attribute for file " + (dir_ / "missing") + " - -1"}));
}

TEST_F(FilesTest, ProgressMarksAndRestoresTheCreationDate) {
  const std::string file = dir_.touch("clip.mov");
  if (!userAttributesWork(file)) GTEST_SKIP() << "no user attributes on " << dir_.path();
  const auto before = FM::creationDateForFile(file);
  const auto marker = KdFileManager::Date(std::chrono::seconds(443779200));  // 1984-01-24 08:00 UTC
  FM::setFinderProgress(0.5f, file);
  EXPECT_EQ(rawAttr(file, "user.com.apple.progress.fractionCompleted"), "0.500");
  EXPECT_EQ(FM::creationDateForFile(file), marker);
  FM::setFinderProgress(0.25f, file);
  EXPECT_EQ(rawAttr(file, "user.com.apple.progress.fractionCompleted"), "0.250");
  const auto modified = FM::modificationDateForFile(file);
  FM::removeFinderProgressForFile(file);
  EXPECT_EQ(rawAttr(file, "user.com.apple.progress.fractionCompleted"), "<none>");
  EXPECT_EQ(FM::creationDateForFile(file), before) << "the date from before, not the modified one";
  EXPECT_EQ(FM::modificationDateForFile(file), modified);
  // Not a number clears too.
  FM::setFinderProgress(1.0f, file);
  FM::setFinderProgress(std::nanf(""), file);
  EXPECT_EQ(rawAttr(file, "user.com.apple.progress.fractionCompleted"), "<none>");
  EXPECT_EQ(FM::creationDateForFile(file), before);
}

TEST_F(FilesTest, LockAndUnlockATree) {
  dir_.touch("card/CLIP/A001.mov", "a");
  dir_.touch("card/CLIP/deep/A002.mov", "b");
  dir_.touch("card/top.xml", "c");
  dir_.touch("outside/keep.txt", "d");
  fs::create_symlink(dir_ / "outside", dir_ / "card/CLIP/out");
  fs::create_symlink(dir_ / "outside/keep.txt", dir_ / "card/keep-link");
  ::chmod((dir_ / "card/top.xml").c_str(), 0640);
  if (!userAttributesWork(dir_ / "card/top.xml")) GTEST_SKIP() << "no user attributes here";
  const std::string files[] = {dir_ / "card/CLIP/A001.mov", dir_ / "card/CLIP/deep/A002.mov",
                               dir_ / "card/top.xml"};
  FM::lockFolder(dir_ / "card");
  for (const auto& f : files) EXPECT_TRUE(FM::isFileLocked(f)) << f;
  for (const char* folder : {"card", "card/CLIP", "card/CLIP/deep"})
    EXPECT_FALSE(FM::isFileLocked(dir_ / folder)) << folder;
  EXPECT_FALSE(FM::isFileLocked(dir_ / "outside/keep.txt")) << "links are not followed";
  FM::unlockFolder(dir_ / "card");
  for (const auto& f : files) EXPECT_FALSE(FM::isFileLocked(f)) << f;
  struct stat st {};
  ::stat((dir_ / "card/top.xml").c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0640u) << "unlocking restores the bits it found";
  // Single files, and items never locked are left alone.
  ::chmod(files[0].c_str(), 0444);
  FM::unlockFile(files[0]);
  ::stat(files[0].c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0444u);
  FM::lockFile(files[1]);
  EXPECT_TRUE(FM::isFileLocked(files[1]));
  FM::unlockFile(files[1]);
  EXPECT_FALSE(FM::isFileLocked(files[1]));
  FM::unlockFolder(dir_ / "missing");
  EXPECT_TRUE(logged().empty());
  FM::lockFile(dir_ / "missing");
  EXPECT_EQ(logged(),
            Lines{"Unable to unlock file " + (dir_ / "missing") + ": No such file or directory"});
}

TEST_F(FilesTest, PermissionsAndSmallOperations) {
  const std::string file = dir_.touch("f");
  FM::setPosixPermissions(0600, file);
  struct stat st {};
  ::stat(file.c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  FM::setPosixPermissions(0644, dir_ / "missing");
  EXPECT_EQ(logged(), Lines{"Error setting permissions for file " + (dir_ / "missing") +
                            ": No such file or directory"});
  FM::disableFileSystemCachingForFile(file);
  ::stat(file.c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  FM::FSRef ref = FM::stringToFSRef(file);
  EXPECT_EQ(FM::stringWithFSRef(&ref), file);
  EXPECT_EQ(FM::stringWithFSRef(nullptr), "");
  FM::notifyFileSystemChanged(file);
}

}  // namespace
}  // namespace kd::test
