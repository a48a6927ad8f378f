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

namespace {

struct Location {
  const char* name;
  std::function<OptPath()> op;
  OptPath expected;  // as macOS answers for bob, whose home is /Users/bob
};

std::vector<Location> bobsLocations() {
  return {
      {"applicationDirectory user", [] { return KdLocalPaths::applicationDirectory(true); },
       "/Users/bob/Applications"},
      {"applicationDirectory local", [] { return KdLocalPaths::applicationDirectory(false); },
       "/Applications"},
      {"adminApplicationDirectory user",
       [] { return KdLocalPaths::adminApplicationDirectory(true); },
       "/Users/bob/Applications/Utilities"},
      {"documentDirectory user", [] { return KdLocalPaths::documentDirectory(true); },
       "/Users/bob/Documents"},
      {"documentDirectory local", [] { return KdLocalPaths::documentDirectory(false); },
       std::nullopt},
      {"libraryDirectory user", [] { return KdLocalPaths::libraryDirectory(true); },
       "/Users/bob/Library"},
      {"libraryDirectory local", [] { return KdLocalPaths::libraryDirectory(false); }, "/Library"},
      {"prefsDirectory user", [] { return KdLocalPaths::prefsDirectory(true); },
       "/Users/bob/Library/Preferences"},
      {"prefsDirectory local", [] { return KdLocalPaths::prefsDirectory(false); },
       "/Library/Preferences"},
      {"cacheDirectory user", [] { return KdLocalPaths::cacheDirectory(true); },
       "/Users/bob/Library/Caches"},
      {"appSupportDirectory user", [] { return KdLocalPaths::appSupportDirectory(true); },
       "/Users/bob/Library/Application Support"},
      {"logDirectory user", [] { return KdLocalPaths::logDirectory(true); },
       "/Users/bob/Library/Logs"},
      {"logDirectory local", [] { return KdLocalPaths::logDirectory(false); }, "/Library/Logs"},
      {"movieDirectory", [] { return KdLocalPaths::movieDirectory(); }, "/Users/bob/Movies"},
      {"desktopDirectory", [] { return KdLocalPaths::desktopDirectory(); }, "/Users/bob/Desktop"},
      {"systemLibraryDirectory", [] { return KdLocalPaths::systemLibraryDirectory(); },
       "/System/Library"},
      {"localDocumentationDirectory", [] { return KdLocalPaths::localDocumentationDirectory(); },
       "/Library/Documentation"},
      {"userDirectory", [] { return KdLocalPaths::userDirectory(); }, "/Users/bob"},
      {"username", [] { return KdLocalPaths::username(); }, "bob"},
      {"trashDirectory", [] { return KdLocalPaths::trashDirectory(); }, "/Users/bob/.Trash"},
  };
}

}  // namespace

// Bob's folders are the same whether bob runs the program or root does while
// bob is at the console.
TEST(KdLocalPaths, LocationsOfBobAndOfRootWithBobAtTheConsole) {
  FakeMacPlatform fake;
  ScopedPlatform installed(fake);
  for (std::uint32_t uid : {501u, 0u}) {
    fake.setUid(uid);
    EXPECT_EQ(KdLocalPaths::isRoot(), uid == 0);
    for (const Location& l : bobsLocations())
      EXPECT_EQ(l.op(), l.expected) << l.name << " as uid " << uid;
  }
}

TEST(KdLocalPaths, RootAdjustmentCutsRootsHomeAsText) {
  FakeMacPlatform fake;
  fake.setUid(0);
  ScopedPlatform installed(fake);
  struct Case {
    const char* lookup;
    OptPath library;
    OptPath prefs;
  };
  const Case cases[] = {
      {"/var/root/Library", "/Users/bob/Library", "/Users/bob/Library/Preferences"},
      // The second cut is one short of its prefix: the "t" of "root" stays.
      {"/private/var/root/Library", "/Users/bob/t/Library", "/Users/bob/t/Library/Preferences"},
      {"/opt/Library", "/Users/bob/opt/Library", "/Users/bob/opt/Library/Preferences"},
  };
  for (const Case& c : cases) {
    fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {c.lookup, "/ignored"});
    EXPECT_EQ(KdLocalPaths::libraryDirectory(true), c.library) << c.lookup;
    EXPECT_EQ(KdLocalPaths::prefsDirectory(true), c.prefs) << c.lookup;
  }
  // Only the user domain is adjusted.
  fake.setSearchPath(DirectoryKind::Library, kd::LocalDomainMask, {"/var/root/Library"});
  EXPECT_EQ(KdLocalPaths::libraryDirectory(false), "/var/root/Library");
  fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {});
  EXPECT_EQ(KdLocalPaths::libraryDirectory(true), std::nullopt);
  EXPECT_EQ(KdLocalPaths::logDirectory(true), std::nullopt);
}

TEST(KdLocalPaths, RootWithNobodyAtTheConsoleHasNoUserFolders) {
  FakeMacPlatform fake;
  fake.setUid(0);
  ScopedPlatform installed(fake);
  for (OptPath console : {OptPath(), OptPath("loginwindow"), OptPath("")}) {
    fake.setConsoleUser(console);
    EXPECT_EQ(KdLocalPaths::currentConsoleUser(), std::nullopt);
    EXPECT_EQ(KdLocalPaths::username(), std::nullopt);
    EXPECT_EQ(KdLocalPaths::userDirectory(), std::nullopt);
    EXPECT_EQ(KdLocalPaths::prefsDirectory(true), std::nullopt);
    EXPECT_EQ(KdLocalPaths::trashDirectory(), std::nullopt);
    EXPECT_EQ(KdLocalPaths::prefsDirectory(false), "/Library/Preferences");
  }
  // Not root: the process's own user, whoever is at the console.
  fake.setUid(501);
  EXPECT_EQ(KdLocalPaths::username(), "bob");
  EXPECT_EQ(KdLocalPaths::userDirectory(), "/Users/bob");
}

TEST(KdLocalPaths, RootFollowsTheConsoleUserFromCallToCall) {
  FakeMacPlatform fake;
  fake.setUid(0);
  ScopedPlatform installed(fake);
  EXPECT_EQ(KdLocalPaths::prefsDirectory(true), "/Users/bob/Library/Preferences");
  EXPECT_TRUE(KdLocalPaths::isPathSystemDirectory("/Users/bob/Library", true));
  fake.setConsoleUser("alice");
  EXPECT_EQ(KdLocalPaths::prefsDirectory(true), "/Users/alice/Library/Preferences");
  EXPECT_EQ(KdLocalPaths::username(), "alice");
  EXPECT_FALSE(KdLocalPaths::isPathSystemDirectory("/Users/bob/Library", true));
  EXPECT_TRUE(KdLocalPaths::isPathSystemDirectory("/Users/alice/Library", true));
  // Root-ness is asked afresh too.
  fake.setUid(501);
  EXPECT_EQ(KdLocalPaths::username(), "bob");
}

TEST(KdLocalPaths, TrailingSlashesAndTimeMachine) {
  struct Slash {
    OptPath in, ensured, stripped;
  };
  const Slash slashes[] = {
      {std::nullopt, std::nullopt, std::nullopt},
      {"", "", ""},
      {"/", "/", "/"},
      {"a", "a/", "a"},
      {"a/", "a/", "a"},
      {"a//", "a//", "a/"},
      {"/Users/bob", "/Users/bob/", "/Users/bob"},
  };
  for (const Slash& s : slashes) {
    EXPECT_EQ(KdLocalPaths::ensureTrailingSlash(s.in), s.ensured) << s.in.value_or("(none)");
    EXPECT_EQ(KdLocalPaths::stripTrailingSlash(s.in), s.stripped) << s.in.value_or("(none)");
  }

  struct Tm {
    const char* path;
    bool onTimeMachine;
  };
  const Tm tms[] = {
      {"/Volumes/TM/Backups.backupdb/Mac", true},
      {"/Volumes/TM/Backups.backupdb", true},
      {"/Backups.backupdb/x", false},
      {"/Volumes/TM/Backups.backupdbx/Mac", false},
      {"/Volumes/TM/backups.backupdb/Mac", false},
      {"/VolumesX/Backups.backupdb", false},
  };
  for (const Tm& t : tms)
    EXPECT_EQ(KdLocalPaths::isPathOnTimeMachineVolume(t.path), t.onTimeMachine) << t.path;
}

TEST(KdLocalPaths, RandomStringsUseTheAlphabet) {
  EXPECT_EQ(KdLocalPaths::randomString(0), "");
  std::string s = KdLocalPaths::randomString(500);
  ASSERT_EQ(s.size(), 500u);
  EXPECT_EQ(s.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789"), std::string::npos) << s;
  // 500 draws from 36 characters that all came out the same would mean a
  // broken index.
  EXPECT_NE(s.find_first_not_of(s[0]), std::string::npos) << s;
}

TEST(KdLocalPaths, TempFileIsAFreshNameInTheTempFolderAndNothingMore) {
  kd::test::TempDir dir;
  const char* old = getenv("TMPDIR");
  std::string saved = old ? old : "";
  setenv("TMPDIR", dir.path().c_str(), 1);

  std::string a = KdLocalPaths::tempFile();
  std::string b = KdLocalPaths::tempFile();
  EXPECT_EQ(KdLocalPaths::tempDirectory(), dir.path() + "/");
  EXPECT_EQ(a.rfind(dir.path() + "/", 0), 0u) << a;
  EXPECT_EQ(a.find('/', dir.path().size() + 1), std::string::npos) << "one component: " << a;
  EXPECT_NE(a, b);
  EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << "tempFile must not create anything";

  if (old)
    setenv("TMPDIR", saved.c_str(), 1);
  else
    unsetenv("TMPDIR");
}

TEST(KdCmdUtils, SingletonFlagAndWorkingDirectory) {
  KdCmdUtils& utils = KdCmdUtils::sharedController();
  EXPECT_EQ(&utils, &KdCmdUtils::sharedController());
  EXPECT_TRUE(utils.hasGUI());
  utils.setHasGUI(false);
  EXPECT_FALSE(KdCmdUtils::sharedController().hasGUI());
  utils.setHasGUI(true);

  // The working directory, not where the executable lies.
  kd::test::TempDir dir;
  std::string before = std::filesystem::current_path().string();
  ASSERT_EQ(chdir(dir.path().c_str()), 0);
  EXPECT_EQ(KdCmdUtils::applicationPath(), std::filesystem::canonical(dir.path()).string());
  ASSERT_EQ(chdir(before.c_str()), 0);

  FakeMacPlatform fake;
  ScopedPlatform installed(fake);
  fake.setCurrentDirectory("/Applications/Ferrimo.app");
  EXPECT_EQ(KdCmdUtils::applicationPath(), "/Applications/Ferrimo.app");
  fake.setCurrentDirectory(std::nullopt);
  EXPECT_EQ(KdCmdUtils::applicationPath(), std::nullopt);
}
