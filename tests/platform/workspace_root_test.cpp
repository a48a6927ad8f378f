#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/Platform.h"
#include "platform/Volumes.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {
bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}
}  // namespace

TEST(LinuxWorkspaceRoot, RemovableMediaAreMountsUnderMediaFolders) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  std::string base = "/media/kdtest-" + std::to_string(getpid());
  std::string card = base + "/CARD";
  std::string runCard = "/run/media/kdtest-" + std::to_string(getpid()) + "/CARD2";
  kd::test::TempDir elsewhere;
  fs::create_directories(card);
  fs::create_directories(runCard);
  if (mount("tmpfs", card.c_str(), "tmpfs", 0, "size=1m") != 0)
    GTEST_SKIP() << "cannot mount tmpfs here: " << strerror(errno);
  ASSERT_EQ(mount("tmpfs", runCard.c_str(), "tmpfs", 0, "size=1m"), 0);
  ASSERT_EQ(mount("tmpfs", elsewhere.path().c_str(), "tmpfs", 0, "size=1m"), 0);

  auto media = kd::nativePlatform().volumes().mountedRemovableMedia();
  EXPECT_TRUE(contains(media, card));
  EXPECT_TRUE(contains(media, runCard));
  EXPECT_FALSE(contains(media, elsewhere.path())) << "a tmpfs elsewhere is not removable";
  EXPECT_FALSE(contains(media, "/"));
  // The volumes' mount table says the same of each mount (the agent reads it).
  for (const kd::VolumeMount& m : kd::nativePlatform().volumes().mountTable()) {
    if (m.mountPoint == card || m.mountPoint == runCard || m.mountPoint == elsewhere.path()) {
      EXPECT_EQ(m.removable, m.mountPoint != elsewhere.path()) << m.mountPoint;
    }
  }

  umount(card.c_str());
  umount(runCard.c_str());
  umount(elsewhere.path().c_str());
  EXPECT_FALSE(contains(kd::nativePlatform().volumes().mountedRemovableMedia(), card));
  fs::remove_all(base);
  fs::remove_all(fs::path(runCard).parent_path());
}
