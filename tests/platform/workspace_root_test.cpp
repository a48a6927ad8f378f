#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "platform/Platform.h"
#include "platform/Volumes.h"
#include "support/ScopedTmpfs.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;

namespace {
bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}
}  // namespace

TEST(LinuxWorkspaceRoot, RemovableMediaAreMountsUnderMediaFolders) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  const std::string base = "/media/kdtest-" + std::to_string(getpid()), card = base + "/CARD";
  const std::string runBase = "/run/media/kdtest-" + std::to_string(getpid());
  const std::string runCard = runBase + "/CARD2";
  kd::test::TempDir elsewhere;
  {
    const kd::test::ScopedTmpfs mounted[] = {
        {card, "size=1m"}, {runCard, "size=1m"}, {elsewhere.path(), "size=1m"}};
    if (!mounted[0].mounted()) GTEST_SKIP() << "cannot mount tmpfs here: " << strerror(errno);
    ASSERT_TRUE(mounted[1].mounted() && mounted[2].mounted());

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
  }
  EXPECT_FALSE(contains(kd::nativePlatform().volumes().mountedRemovableMedia(), card));
  fs::remove_all(base);
  fs::remove_all(runBase);
}
