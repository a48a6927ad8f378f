#include <gtest/gtest.h>

#include "paths/KdLocalPaths.h"
#include "support/FakeMacPlatform.h"

using kd::test::FakeMacPlatform;
using kd::test::ScopedPlatform;

namespace {

struct GuardCase {
  const char* path;
  bool inside;  // exactMatch false
  bool exact;   // exactMatch true
};

// Bob's macOS folders: home /Users/bob.
const GuardCase kCases[] = {
    {"/", true, true},
    {"", false, false},
    {"/a", false, false},
    {"/usr", true, true},
    {"/usr/", false, false},  // shortened to "/us"
    {"/usr/bin", true, false},
    {"/usr/bin/ls", true, false},
    {"/usrx", false, false},
    {"/usr/local/bin", false, false},
    {"/usr/local", true, false},
    {"/private/var/tmp/x", true, false},
    {"/private/var", false, false},
    {"/var", true, true},
    {"/var/", false, false},
    {"/bin/sh", true, false},
    {"/sbin", true, true},
    {"/System", true, true},
    {"/System/Library/Fonts", true, false},
    {"/system", false, false},
    {"/Users/bob/Library", true, true},
    {"/Users/bob/Library/", false, false},  // shortened to ".../Librar"
    {"/Users/bob/Library/Preferences", true, true},
    {"/Users/bob/Library/Caches", true, true},
    {"/Users/bob/Library/Application Support", true, true},
    {"/Users/bob/Library/Logs", false, false},
    {"/Users/bob/Library/Preferences/x.plist", false, false},
    {"/Users/bob", true, true},
    {"/Users/bob/", false, false},
    {"/Users/bob/Desktop", true, true},
    {"/Users/bob/Documents", true, true},
    {"/Users/bob/Movies", false, false},
    {"/Users/Shared", true, true},
    {"/Users/Shared/Projects", false, false},
    {"/Applications", true, true},
    {"/Applications/Utilities", true, true},
    {"/Applications/Ferrimo.app", false, false},
    {"/Library", true, true},
    {"/Library/Preferences", true, true},
    {"/Library/Documentation", true, true},
    {"/System/Library", true, true},
    {"/x/", false, false},  // shortened to "/", which is only caught before
    {"/Volumes/CARD/DCIM", false, false},
};

}  // namespace

TEST(SystemDirectoryGuard, ProtectedPathsOfBob) {
  FakeMacPlatform fake;
  ScopedPlatform installed(fake);
  for (std::uint32_t uid : {501u, 0u}) {  // root with bob at the console sees the same
    fake.setUid(uid);
    for (const GuardCase& c : kCases) {
      EXPECT_EQ(KdLocalPaths::isPathSystemDirectory(c.path, false), c.inside)
          << "'" << c.path << "' uid " << uid;
      EXPECT_EQ(KdLocalPaths::isPathSystemDirectory(c.path, true), c.exact)
          << "'" << c.path << "' exact, uid " << uid;
      EXPECT_EQ(KdLocalPaths::isPathSystemDirectory(c.path), c.inside) << "short form";
    }
  }
}

TEST(SystemDirectoryGuard, RootWithNobodyAtTheConsoleKeepsTheMachineRules) {
  FakeMacPlatform fake;
  fake.setUid(0);
  fake.setConsoleUser("loginwindow");
  ScopedPlatform installed(fake);
  EXPECT_FALSE(KdLocalPaths::isPathSystemDirectory("/Users/bob/Library", true));
  EXPECT_FALSE(KdLocalPaths::isPathSystemDirectory("/var/root/Library", true));
  EXPECT_TRUE(KdLocalPaths::isPathSystemDirectory("/Library", true));
  EXPECT_TRUE(KdLocalPaths::isPathSystemDirectory("/usr", true));
}
