#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "crash/KdBugReporter.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

TEST(ChownPlist, FileBelowAHomeGoesToItsUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to give files away";
  TempDir tmp;
  for (const auto& part : path::components(tmp.path()))
    if (part == "home" || part == "Users") GTEST_SKIP() << "temporary folder below a homes folder";
  // An unprivileged account that every system has.
  struct passwd* pw = getpwnam("nobody");
  if (!pw) GTEST_SKIP() << "no user nobody";
  const uid_t uid = pw->pw_uid;

  // macOS (its homes folder is "Users") or this system ("home").
  for (const auto& [macOS, file, toUser] :
       {std::tuple{true, "Users/nobody/Library/x.plist", true},
        std::tuple{true, "var/x.plist", false}, std::tuple{true, "home/nobody/x.plist", false},
        std::tuple{false, "home/nobody/x.plist", true}, std::tuple{false, "var/x.plist", false}}) {
    SCOPED_TRACE(file);
    FakeMacPlatform mac;
    ScopedPlatform scoped(macOS ? static_cast<Platform&>(mac) : nativePlatform());
    KdBugReporter::chownPlist(tmp.touch(file, "x"));
    EXPECT_EQ(ownerOf(tmp / file), toUser ? uid : 0u);
  }

  // A record written by root, and the folders it needed, go back to the user
  // whose home it is (a real home belongs to its user).
  ASSERT_EQ(::chown((tmp / "home/nobody").c_str(), uid, pw->pw_gid), 0);
  const std::string record = tmp / "home/nobody/.local/Preferences/r.plist";
  KdBugReporter::stopBugReporter(record);
  EXPECT_TRUE(plistDate(readPlistDictionaryOrEmpty(record), "exit"));
  EXPECT_EQ(ownerOf(path::deletingLastComponent(record)), uid);
  EXPECT_EQ(ownerOf(tmp / "home/nobody/.local"), uid);
  EXPECT_EQ(ownerOf(record), uid);

  // Below a home that is not the user's own, root makes no folders for the
  // user: a link in the user's tree cannot steer root elsewhere.
  const std::string elsewhere = tmp / "home/nobody/away/Preferences/r.plist";
  ASSERT_EQ(::symlink((tmp / "var").c_str(), (tmp / "home/nobody/away").c_str()), 0);
  KdBugReporter::stopBugReporter(elsewhere);
  EXPECT_FALSE(std::filesystem::exists(tmp / "var/Preferences"));
}

}  // namespace
}  // namespace kd::test
