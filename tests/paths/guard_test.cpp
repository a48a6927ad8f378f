#include <gtest/gtest.h>

#include "paths/KdLocalPaths.h"
#include "support/FakeMacPlatform.h"

// Bob's macOS folders (home /Users/bob), for bob and for root with bob at the
// console.
TEST(SystemDirectoryGuard, ProtectedPaths) {
  struct Case {
    const char* path;
    bool inside;  // exactMatch false
    bool exact;   // exactMatch true
  };
  const Case cases[] = {
      {"/", true, true},
      {"", false, false},
      {"/a", false, false},
      {"/usr", true, true},
      {"/usr/", false, false},  // shortened to "/us"
      {"/usr/bin/ls", true, false},
      {"/usrx", false, false},
      {"/usr/local/bin", false, false},
      {"/usr/local", true, false},
      {"/private/var/tmp/x", true, false},
      {"/private/var", false, false},
      {"/var", true, true},
      {"/sbin/x", true, false},
      {"/System", true, true},
      {"/system", false, false},
      {"/Users/bob/Library", true, true},
      {"/Users/bob/Library/", false, false},  // shortened to ".../Librar"
      {"/Users/bob/Library/Preferences", true, true},
      {"/Users/bob/Library/Logs", false, false},
      {"/Users/bob", true, true},
      {"/Users/bob/Desktop", true, true},
      {"/Users/Shared", true, true},
      {"/Users/Shared/Projects", false, false},
      {"/Applications/Utilities", true, true},
      {"/Library/Documentation", true, true},
      {"/System/Library", true, true},
      {"/x/", false, false},  // shortened to "/", which only counts before
  };
  kd::test::FakeMacPlatform fake;
  kd::test::ScopedPlatform installed(fake);
  for (std::uint32_t uid : {501u, 0u}) {
    fake.setUid(uid);
    for (const Case& c : cases) {
      EXPECT_EQ(KdLocalPaths::isPathSystemDirectory(c.path), c.inside) << c.path << " " << uid;
      EXPECT_EQ(KdLocalPaths::isPathSystemDirectory(c.path, true), c.exact) << c.path << " " << uid;
    }
  }
}
