#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "crash/KdBugReporter.h"
#include "support/FakeMacPlatform.h"
#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

uid_t ownerOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

TEST(ChownPlist, FileBelowAHomeGoesToItsUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to create a user and give files away";
  TempDir tmp;
  for (const auto& part : path::components(tmp.path()))
    if (part == "home" || part == "Users") GTEST_SKIP() << "temporary folder below a homes folder";
  // A throwaway unprivileged account, removed at the end.
  const std::string u = "kdcrashtest";
  if (!getpwnam(u.c_str()))
    KdTaskEx::terminationCodeFromTask("/usr/sbin/useradd", {"--system", "--no-create-home", u});
  struct passwd* pw = getpwnam(u.c_str());
  if (!pw) GTEST_SKIP() << "useradd could not create " << u;
  const uid_t uid = pw->pw_uid;

  struct Case {
    bool macOS;  // the macOS-answering platform ("Users") or this system's ("home")
    std::string file;
    bool toUser;
  };
  const Case cases[] = {
      {true, "Users/" + u + "/Library/Preferences/x.plist", true},
      {true, "Users/" + u + "/Users/root/x.plist", true},  // the first "Users" counts
      {true, "var/tmp/x.plist", false},
      {true, "home/" + u + "/x.plist", false},
      {true, "data/Users", false},  // "Users" as the last component
      {false, "home/" + u + "/.config/x.plist", true},
      {false, "var/tmp/x.plist", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    FakeMacPlatform mac;
    std::optional<ScopedPlatform> scoped;
    if (c.macOS) scoped.emplace(mac);
    const std::string file = tmp.touch(c.file, "x");
    KdBugReporter::chownPlist(file);
    EXPECT_EQ(ownerOf(file), c.toUser ? uid : 0u);
  }

  // A record written by root, and the folder it needed, go back to the user.
  const std::string record = tmp / ("home/" + u + "/.local/Preferences/r.plist");
  KdBugReporter::stopBugReporter(record);
  EXPECT_TRUE(plistDate(readPlistDictionaryOrEmpty(record), "exit"));
  EXPECT_EQ(ownerOf(path::deletingLastComponent(record)), uid);
  EXPECT_EQ(ownerOf(record), uid);

  KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {u});
}

}  // namespace
}  // namespace kd::test
