#include "paths/KdLocalPaths.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "paths/KdCmdUtils.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

using kd::DirectoryKind;
using kd::test::FakeMacPlatform;
using kd::test::ScopedPlatform;
using OptPath = KdLocalPaths::OptPath;
using L = KdLocalPaths;

// Bob's folders are the same whether bob runs the program or root does while
// bob is at the console.
TEST(KdLocalPaths, LocationsOfBobAndOfRootWithBobAtTheConsole) {
  const std::pair<std::function<OptPath()>, OptPath> cases[] = {
      {[] { return L::applicationDirectory(true); }, "/Users/bob/Applications"},
      {[] { return L::applicationDirectory(false); }, "/Applications"},
      {[] { return L::documentDirectory(false); }, std::nullopt},
      {[] { return L::libraryDirectory(true); }, "/Users/bob/Library"},
      {[] { return L::prefsDirectory(true); }, "/Users/bob/Library/Preferences"},
      {[] { return L::prefsDirectory(false); }, "/Library/Preferences"},
      {[] { return L::logDirectory(true); }, "/Users/bob/Library/Logs"},
      {[] { return L::logDirectory(false); }, "/Library/Logs"},
      {[] { return L::movieDirectory(); }, "/Users/bob/Movies"},
      {[] { return L::systemLibraryDirectory(); }, "/System/Library"},
      {[] { return L::localDocumentationDirectory(); }, "/Library/Documentation"},
      {[] { return L::username(); }, "bob"},
      {[] { return L::trashDirectory(); }, "/Users/bob/.Trash"},
  };
  FakeMacPlatform fake;
  ScopedPlatform installed(fake);
  for (std::uint32_t uid : {501u, 0u}) {
    fake.setUid(uid);
    for (const auto& [op, expected] : cases)
      EXPECT_EQ(op(), expected) << expected.value_or("(none)") << " as uid " << uid;
  }
}

TEST(KdLocalPaths, RootAdjustmentCutsRootsHomeAsText) {
  FakeMacPlatform fake;
  fake.setUid(0);
  ScopedPlatform installed(fake);
  const std::pair<const char*, const char*> cases[] = {
      {"/var/root/Library", "/Users/bob/Library"},
      {"/private/var/root/Library", "/Users/bob/t/Library"},  // the "t" of "root" stays
      {"/opt/Library", "/Users/bob/opt/Library"},
  };
  for (const auto& [lookup, library] : cases) {
    fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {lookup, "/ignored"});
    EXPECT_EQ(L::libraryDirectory(true), library);
    EXPECT_EQ(L::prefsDirectory(true), std::string(library) + "/Preferences");
  }
  fake.setSearchPath(DirectoryKind::Library, kd::LocalDomainMask, {"/var/root/Library"});
  EXPECT_EQ(L::libraryDirectory(false), "/var/root/Library") << "only the user domain moves";
  fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {});
  EXPECT_EQ(L::logDirectory(true), std::nullopt);

  // Nobody at the console: no user folders at all.
  for (OptPath console : {OptPath(), OptPath("loginwindow")}) {
    fake.setConsoleUser(console);
    EXPECT_EQ(L::username(), std::nullopt);
    EXPECT_EQ(L::userDirectory(), std::nullopt);
    EXPECT_EQ(L::desktopDirectory(), std::nullopt);
    EXPECT_EQ(L::applicationDirectory(false), "/Applications");
  }
}

TEST(KdLocalPaths, RootFollowsTheConsoleUserFromCallToCall) {
  FakeMacPlatform fake;
  fake.setUid(0);
  ScopedPlatform installed(fake);
  EXPECT_EQ(L::prefsDirectory(true), "/Users/bob/Library/Preferences");
  EXPECT_TRUE(L::isPathSystemDirectory("/Users/bob/Library", true));
  fake.setConsoleUser("alice");
  EXPECT_EQ(L::prefsDirectory(true), "/Users/alice/Library/Preferences");
  EXPECT_FALSE(L::isPathSystemDirectory("/Users/bob/Library", true));
  EXPECT_TRUE(L::isPathSystemDirectory("/Users/alice/Library", true));
  fake.setUid(501);  // root-ness is asked afresh too
  EXPECT_EQ(L::username(), "bob");
}

TEST(KdLocalPaths, TextHelpers) {
  const std::tuple<OptPath, OptPath, OptPath> slashes[] = {
      // path, ensureTrailingSlash, stripTrailingSlash
      {std::nullopt, std::nullopt, std::nullopt},
      {"", "", ""},
      {"/", "/", "/"},
      {"a", "a/", "a"},
      {"a//", "a//", "a/"},
  };
  for (const auto& [in, ensured, stripped] : slashes) {
    EXPECT_EQ(L::ensureTrailingSlash(in), ensured) << in.value_or("(none)");
    EXPECT_EQ(L::stripTrailingSlash(in), stripped) << in.value_or("(none)");
  }
  EXPECT_TRUE(L::isPathOnTimeMachineVolume("/Volumes/TM/Backups.backupdb/Mac"));
  EXPECT_FALSE(L::isPathOnTimeMachineVolume("/Backups.backupdb/x"));
  EXPECT_FALSE(L::isPathOnTimeMachineVolume("/Volumes/TM/Backups.backupdbx"));

  EXPECT_EQ(L::randomString(0), "");
  std::string s = L::randomString(300);
  EXPECT_EQ(s.size(), 300u);
  EXPECT_EQ(s.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos);
}

TEST(KdLocalPaths, TempFileIsOnlyAName) {
  kd::test::TempDir dir;
  const char* old = getenv("TMPDIR");
  std::string saved = old ? old : "";
  setenv("TMPDIR", dir.path().c_str(), 1);
  std::string a = L::tempFile();
  EXPECT_EQ(a.rfind(dir.path() + "/", 0), 0u) << a;
  EXPECT_EQ(a.find('/', dir.path().size() + 1), std::string::npos) << "one component: " << a;
  EXPECT_NE(a, L::tempFile());
  EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "nothing may be created";
  old ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
}

TEST(KdCmdUtils, SingletonAndWorkingDirectory) {
  EXPECT_EQ(&KdCmdUtils::sharedController(), &KdCmdUtils::sharedController());
  EXPECT_TRUE(KdCmdUtils::sharedController().hasGUI());
  kd::test::TempDir dir;
  std::string before = std::filesystem::current_path().string();
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  EXPECT_EQ(KdCmdUtils::applicationPath(), std::filesystem::canonical(dir.path()).string());
  ASSERT_EQ(chdir(before.c_str()), 0);
}
