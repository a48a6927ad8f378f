#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
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

// A throwaway unprivileged account, removed again when the owner goes away.
class ScopedUser {
 public:
  explicit ScopedUser(std::string name) : name_(std::move(name)) {
    if (!uid()) {
      KdTaskEx::terminationCodeFromTask(
          "/usr/sbin/useradd",
          {"--system", "--no-create-home", "--shell", "/usr/sbin/nologin", name_});
      created_ = true;
    }
  }
  ~ScopedUser() {
    if (created_) KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {name_});
  }
  ScopedUser(const ScopedUser&) = delete;
  ScopedUser& operator=(const ScopedUser&) = delete;

  const std::string& name() const { return name_; }
  std::optional<uid_t> uid() const {
    struct passwd* pw = getpwnam(name_.c_str());
    if (!pw) return std::nullopt;
    return pw->pw_uid;
  }

 private:
  std::string name_;
  bool created_ = false;
};

uid_t ownerOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

class ChownTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to create a user and give files away";
    for (const auto& part : path::components(tmp_.path()))
      if (part == "home" || part == "Users")
        GTEST_SKIP() << "the temporary folder lies below a homes folder: " << tmp_.path();
    user_ = std::make_unique<ScopedUser>("kdcrashtest");
    if (!user_->uid()) GTEST_SKIP() << "could not create a test user with useradd";
  }

  TempDir tmp_;
  std::unique_ptr<ScopedUser> user_;
};

TEST_F(ChownTest, FileBelowAHomeGoesToItsUser) {
  const std::string u = user_->name();
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
      {true, "data/Users", false},  // "Users" is the last component
      {false, "home/" + u + "/.config/x.plist", true},
      {false, "var/tmp/x.plist", false},
      {false, "Users/" + u + "/x.plist", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE((c.macOS ? "macOS: " : "Linux: ") + c.file);
    FakeMacPlatform mac;
    std::optional<ScopedPlatform> scoped;
    if (c.macOS) scoped.emplace(mac);
    const std::string file = tmp_.touch(c.file, "x");
    ASSERT_EQ(ownerOf(file), 0u);

    KdBugReporter::chownPlist(file);

    EXPECT_EQ(ownerOf(file), c.toUser ? *user_->uid() : 0u);
  }
}

TEST_F(ChownTest, RecordWrittenByRootIsHandedBackWithTheFoldersItNeeded) {
  const std::string home = tmp_.mkdir("home/" + user_->name());
  ASSERT_EQ(chown(home.c_str(), *user_->uid(), 0), 0);
  const std::string record = home + "/.config/com.quillfen.Ferrimo.plist";

  KdBugReporter::stopBugReporter(record);

  auto dict = readPlistDictionary(record);
  ASSERT_TRUE(dict);
  EXPECT_TRUE(plistDate(*dict, "exit"));
  EXPECT_EQ(ownerOf(home + "/.config"), *user_->uid());
  EXPECT_EQ(ownerOf(record), *user_->uid());
}

}  // namespace
}  // namespace kd::test
