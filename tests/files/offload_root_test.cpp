// Offloads with real mounts: an exFAT card image, a destination that fills
// up, a card and a destination unmounted in the middle of the run.
#include <sys/mount.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "FilesFixture.h"
#include "OffloadSupport.h"
#include "ScopedMount.h"
#include "files/offload/Offload.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;

class OffloadRoot : public FilesTest {
 protected:
  void SetUp() override {
    FilesTest::SetUp();
    if (::geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    tag_ = std::to_string(::getpid());
  }
  OffloadOptions options(const std::string& card, std::vector<std::string> destinations) {
    OffloadOptions o;
    o.card = card;
    o.destinations = std::move(destinations);
    return o;
  }
  std::string tag_;
};

// Card and shuttle drive both exFAT: where a file cannot be renamed without
// replacing by the file system's own means.
TEST_F(OffloadRoot, AnExfatCardReachesBothDestinationsReadAgain) {
  const std::vector<std::string> mkfs = {"/usr/sbin/mkfs.exfat", "-L", "A001"};
  ScopedMount card("CARD" + tag_, mkfs, "/usr/sbin/mount.exfat-fuse");
  if (!card.ok()) GTEST_SKIP() << card.error();
  ScopedMount shuttle("SHUTTLE" + tag_, mkfs, "/usr/sbin/mount.exfat-fuse");
  if (!shuttle.ok()) GTEST_SKIP() << shuttle.error();
  const SampleCard& sample = sampleCards()[1];
  writeCard(card.point(), sample);
  OffloadOptions o = options(card.point(), {shuttle.point(), dir_.mkdir("raid")});
  o.reverify = true;
  const OffloadReport report = offloadCard(o);
  ASSERT_TRUE(report.allGood()) << report.error;
  for (const OffloadDestination& d : report.destinations) {
    EXPECT_EQ(d.filesReverified, sample.files.size());
    expectOffloaded(card.point(), d.folder, sample);
    if (::access("/usr/bin/xmllint", X_OK) == 0) {
      EXPECT_EQ(historyProblems(d.folder + "/ascmhl"), "");
    }
  }
}

// A destination without extended attributes (exFAT) still gets every file,
// with the permission bits it can hold, and the report says which copies lost
// their labels; the other destination keeps them.
TEST_F(OffloadRoot, AnExfatDestinationTellsOfTheAttributesItCannotKeep) {
  ScopedMount shuttle("SHUTTLE" + tag_, {"/usr/sbin/mkfs.exfat", "-L", "S1"},
                      "/usr/sbin/mount.exfat-fuse");
  if (!shuttle.ok()) GTEST_SKIP() << shuttle.error();
  const std::string card = dir_.mkdir("CARD");
  const std::string labelled = dir_.touch("CARD/CLIP/C0001.MXF", varyingBytes(90000));
  dir_.touch("CARD/CLIP/C0002.MXF", varyingBytes(5000, 2));
  ASSERT_EQ(::setxattr(labelled.c_str(), "user.xdg.tags", "red", 3, 0), 0);
  const OffloadReport report = offloadCard(options(card, {shuttle.point(), dir_.mkdir("raid")}));
  ASSERT_TRUE(report.allGood()) << report.error;
  EXPECT_EQ(report.destinations[0].filesWithAttributesNotKept, 1u);
  EXPECT_EQ(report.destinations[0].attributesNotKeptExample,
            shuttle.point() + "/CARD/CLIP/C0001.MXF");
  EXPECT_EQ(report.destinations[1].filesWithAttributesNotKept, 0u);
  char tags[8] = {};
  EXPECT_EQ(::getxattr((dir_ / "raid/CARD/CLIP/C0001.MXF").c_str(), "user.xdg.tags", tags, 8), 3);
}

// The small destination is given up when it is full, and says so; the other
// one gets every file; nothing partial stays behind.
TEST_F(OffloadRoot, AFullDestinationIsGivenUpAndTheOtherCompletes) {
  ScopedMount small("small" + tag_, "size=1m");
  if (!small.ok()) GTEST_SKIP() << small.error();
  const std::string card = dir_.mkdir("CARD");
  for (int i = 1; i <= 4; ++i)
    dir_.touch("CARD/CLIP/C000" + std::to_string(i) + ".MXF", varyingBytes(400000, i));
  // Checked before anything is written: the card does not fit.
  OffloadOptions o = options(card, {dir_.mkdir("big"), small.point()});
  const OffloadReport refused = offloadCard(o);
  EXPECT_NE(refused.error.find(" free, but the card needs "), std::string::npos) << refused.error;
  EXPECT_TRUE(refused.warnings.empty());  // a tmpfs is a drive of its own
  EXPECT_FALSE(fs::exists(dir_ / "big/CARD"));
  EXPECT_FALSE(fs::exists(small.point() + "/CARD"));
  // Forced, it fills up during the run.
  o.force = true;
  const OffloadReport report = offloadCard(o);
  EXPECT_FALSE(report.allGood());
  EXPECT_TRUE(report.error.empty()) << report.error;
  ASSERT_EQ(report.destinations.size(), 2u);
  EXPECT_TRUE(report.destinations[0].good());
  EXPECT_EQ(report.destinations[0].filesCopied, 4u);
  const OffloadDestination& full = report.destinations[1];
  EXPECT_NE(full.lost.find("the destination is full"), std::string::npos) << full.lost;
  EXPECT_EQ(full.filesCopied + full.failures.size() + full.filesMissing, 4u);
  for (const auto& e : fs::recursive_directory_iterator(full.folder)) {
    EXPECT_NE(e.path().extension(), ".kdpart") << e.path();
    if (e.is_regular_file() && e.path().parent_path().filename() == "CLIP") {
      EXPECT_EQ(readFile(e.path()), readFile(card + "/CLIP/" + e.path().filename().string()));
    }
  }
}

// Pulled out while the third file is about to be read: the run stops with
// the file's name, what was copied before stays complete and recorded.
TEST_F(OffloadRoot, ACardUnmountedMidRunStopsTheRunWithItsFile) {
  ScopedMount card("CARD" + tag_, "size=8m");
  if (!card.ok()) GTEST_SKIP() << card.error();
  for (int i = 1; i <= 5; ++i)
    dir_.touch("staging/C000" + std::to_string(i) + ".MXF", varyingBytes(200000, i));
  for (int i = 1; i <= 5; ++i)
    fs::copy_file(dir_ / ("staging/C000" + std::to_string(i) + ".MXF"),
                  card.point() + "/C000" + std::to_string(i) + ".MXF");
  OffloadProgress progress;
  progress.fileStarted = [&](const std::string& path, std::uint64_t) {
    if (path == "C0003.MXF") ::umount2(card.point().c_str(), MNT_DETACH);
  };
  const OffloadReport report = offloadCard(options(card.point(), {dir_.mkdir("d1")}), progress);
  EXPECT_FALSE(report.allGood());
  EXPECT_NE(report.error.find(card.point() + "/C0003.MXF"), std::string::npos) << report.error;
  ASSERT_EQ(report.destinations.size(), 1u);
  const OffloadDestination& d = report.destinations[0];
  EXPECT_EQ(d.filesCopied, 2u);
  EXPECT_EQ(d.filesMissing, 3u);
  EXPECT_EQ(readFile(d.folder + "/C0002.MXF"), readFile(dir_ / "staging/C0002.MXF"));
  EXPECT_FALSE(fs::exists(d.folder + "/C0003.MXF"));
  EXPECT_TRUE(d.manifest);  // the two complete files are recorded
}

// A destination unmounted under the run is given up; nothing is made on
// the disk below its mount point, and the other destination completes.
TEST_F(OffloadRoot, ADestinationUnmountedMidRunIsGivenUp) {
  ScopedMount shuttle("shuttle" + tag_, "size=8m");
  if (!shuttle.ok()) GTEST_SKIP() << shuttle.error();
  const std::string card = dir_.mkdir("CARD");
  for (int i = 1; i <= 4; ++i)
    dir_.touch("CARD/CLIP/C000" + std::to_string(i) + ".MXF", varyingBytes(100000, i));
  OffloadProgress progress;
  progress.fileStarted = [&](const std::string& path, std::uint64_t) {
    if (path == "CLIP/C0002.MXF") ::umount2(shuttle.point().c_str(), MNT_DETACH);
  };
  const OffloadReport report =
      offloadCard(options(card, {shuttle.point(), dir_.mkdir("raid")}), progress);
  EXPECT_FALSE(report.allGood());
  EXPECT_TRUE(report.error.empty()) << report.error;
  EXPECT_NE(report.destinations[0].lost.find("the destination is gone"), std::string::npos)
      << report.destinations[0].lost;
  EXPECT_EQ(report.destinations[0].filesCopied + report.destinations[0].filesMissing, 4u);
  EXPECT_TRUE(report.destinations[1].good());
  EXPECT_TRUE(fs::is_empty(shuttle.point())) << "written to the disk below the mount point";
}

}  // namespace
}  // namespace kd::test
