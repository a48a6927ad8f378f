// Locations and the system-folder guard against the macOS-answering fake:
// bob's home is /Users/bob, and bob is at the console.
#include "paths/KdLocalPaths.h"

#include <gtest/gtest.h>

#include <sstream>

#include "support/FakeMacPlatform.h"

using kd::DirectoryKind;
using OptPath = KdLocalPaths::OptPath;
using L = KdLocalPaths;

// Bob's folders, and what the guard protects, are the same whether bob runs
// the program or root does while bob is at the console.
TEST(KdLocalPaths, BobsFoldersAndGuardForBobAndForRoot) {
  // Space-separated paths: protected under both flags, only with exactMatch
  // false, and under neither. "/usr/" and ".../Library/" lose two characters;
  // "/x/" becomes "/", which only counts before the cut.
  const std::tuple<const char*, bool, bool> guarded[] = {
      {"/ /usr /var /System /Users/bob /Users/bob/Desktop /Users/bob/Library "
       "/Users/bob/Library/Preferences /Users/Shared /Applications/Utilities "
       "/Library/Documentation /System/Library",
       true, true},
      {"/usr/bin /usr/bin/ls /usr/local /private/var/tmp/x /sbin/x", true, false},
      {"/a /usr/ /usrx /usr/local/bin /private/var /system /Users/bob/Library/ "
       "/Users/bob/Library/Logs /Users/Shared/Projects /x/",
       false, false},
  };
  kd::test::FakeMacPlatform fake;
  kd::test::ScopedPlatform installed(fake);
  for (std::uint32_t uid : {501u, 0u}) {
    fake.setUid(uid);
    EXPECT_EQ(L::prefsDirectory(true), "/Users/bob/Library/Preferences") << uid;
    EXPECT_EQ(L::documentDirectory(false), std::nullopt) << uid;
    EXPECT_EQ(L::username(), "bob") << uid;
    EXPECT_EQ(L::trashDirectory(), "/Users/bob/.Trash") << uid;
    EXPECT_FALSE(L::isPathSystemDirectory("") || L::isPathSystemDirectory("", true));
    for (const auto& [paths, inside, exact] : guarded) {
      std::istringstream in(paths);
      for (std::string p; in >> p;) {
        EXPECT_EQ(L::isPathSystemDirectory(p), inside) << p << " as uid " << uid;
        EXPECT_EQ(L::isPathSystemDirectory(p, true), exact) << p << " as uid " << uid;
      }
    }
  }
}

TEST(KdLocalPaths, RootFollowsTheConsoleUserAndAdjustsRootsHome) {
  kd::test::FakeMacPlatform fake;
  fake.setUid(0);
  kd::test::ScopedPlatform installed(fake);
  // The console user is asked afresh at every call.
  EXPECT_EQ(L::prefsDirectory(true), "/Users/bob/Library/Preferences");
  fake.setConsoleUser("alice");
  EXPECT_EQ(L::prefsDirectory(true), "/Users/alice/Library/Preferences");
  EXPECT_FALSE(L::isPathSystemDirectory("/Users/bob/Library", true));
  EXPECT_TRUE(L::isPathSystemDirectory("/Users/alice/Library", true));
  fake.setConsoleUser("bob");

  fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {"/var/root/Library", "/x"});
  EXPECT_EQ(L::libraryDirectory(true), "/Users/bob/Library");
  fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {"/private/var/root/Library"});
  EXPECT_EQ(L::libraryDirectory(true), "/Users/bob/t/Library");  // the "t" of "root" stays
  fake.setSearchPath(DirectoryKind::Library, kd::LocalDomainMask, {"/var/root/Library"});
  EXPECT_EQ(L::libraryDirectory(false), "/var/root/Library") << "only the user domain moves";
  fake.setSearchPath(DirectoryKind::Library, kd::UserDomainMask, {});
  EXPECT_EQ(L::logDirectory(true), std::nullopt);

  // Nobody at the console: no user folders at all.
  for (OptPath console : {OptPath(), OptPath("loginwindow")}) {
    fake.setConsoleUser(console);
    EXPECT_EQ(L::username(), std::nullopt);
    EXPECT_EQ(L::desktopDirectory(), std::nullopt);
  }
}
