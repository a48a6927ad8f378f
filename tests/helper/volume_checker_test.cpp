#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helper/FerrimoVolumeChecker.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

struct Card {
  std::string volume;                // the volume's folder name
  std::vector<std::string> entries;  // below the volume; a trailing "/" makes a folder
  std::int64_t expected;
  std::string locked = {};  // below the volume, made traversable but not listable
};

// Builds each card in its own folder below `tmp`; returns the volume paths.
std::vector<std::string> build(const kd::test::TempDir& tmp, const std::vector<Card>& cards) {
  std::vector<std::string> volumes;
  for (const Card& card : cards) {
    const std::string volume = "case" + std::to_string(volumes.size()) + "/" + card.volume;
    volumes.push_back(tmp.mkdir(volume));
    for (const std::string& e : card.entries)
      e.ends_with('/') ? tmp.mkdir(volume + "/" + e) : tmp.touch(volume + "/" + e);
  }
  return volumes;
}

const std::string kMxf = "CONTENTS/CLIPS001/C0001/C0001.MXF";
const std::string kDjiClip = "1234_5678_20200101_x/clip.mov";

TEST(VerifyVolumeType, RecognisesEachLayoutInOrder) {
  const std::vector<Card> cards = {
      {"CARD", {}, -1},
      {"CARD", {"CONTENTS/LASTCLIP.TXT", "BPAV/", "A001.RDM/"}, 0},
      {"CARD", {"A001.RDM/"}, 1},
      {"CARD", {"a001.rdm/"}, -1},
      {"CARD", {"MEDIAPRO.XML"}, 2},
      {"CARD", {"BPAV/"}, 3},
      {"CARD", {"PRIVATE/AVCHD/"}, 4},
      {"CARD", {"AVCHD/"}, 4},
      {"CARD", {"DCIM/100EOS5D/", kMxf}, 5},
      {"CARD", {"DCIM/100CANON/", kMxf}, 7},  // a DCIM without 100EOS falls through
      // 6: (FCP or AVID) and BIN, then a ".mov" starting like the volume's name.
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_FCP.xml", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.MOV"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOX_0001.mov"}, -1},
      {"ABCD", {"ABCD/ABCD_FCP.xml", "ABCD/ABCD_BIN.bin", "ABCD/ABCD.mov"}, 6},
      // A name under four characters does not match 6, and the later tests still run.
      {"ABC", {"ABC/ABC_FCP.xml", "ABC/ABC_BIN.bin", "ABC/ABC.mov", "hs_param.bin"}, 8},
      {"CARD", {"CONTENTS/CLIPS001/C0001/C0001.mxf"}, -1},
      {"CARD", {"SUB/hs_param.bin"}, 8},
      {"CARD", {"A/B/hs_param.bin"}, -1},
      {"DJI_001", {kDjiClip}, 9},
      {"CARD", {kDjiClip}, -1},
  };
  kd::test::TempDir tmp;
  const std::vector<std::string> volumes = build(tmp, cards);
  for (std::size_t i = 0; i < cards.size(); ++i)
    EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(volumes[i]), cards[i].expected) << volumes[i];
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(tmp / "missing"), -1);
}

// Links back into the card (400 "CLIPSn -> ." in CONTENTS) neither hide a
// layout nor make one up, and detection stays linear in the card's size.
TEST(VerifyVolumeType, LinksBackIntoTheCard) {
  kd::test::TempDir tmp;
  const std::vector<std::string> volumes =
      build(tmp, {{"CARD", {"CONTENTS/"}, -1}, {"CARD", {kMxf}, 7}, {"DJI_1", {kDjiClip}, 9}});
  for (const std::string& contents : {volumes[0] + "/CONTENTS", volumes[1] + "/CONTENTS"})
    for (int i = 0; i < 400; ++i)
      ASSERT_EQ(symlink(".", (contents + "/CLIPS" + std::to_string(1000 + i)).c_str()), 0);
  for (int i = 0; i < 400; ++i)
    ASSERT_EQ(
        symlink(".", (volumes[2] + "/1234_5678_" + std::to_string(30000000 + i) + "_L").c_str()),
        0);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(volumes[0]), -1);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(volumes[1]), 7);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(volumes[2]), 9);
}

TEST(VerifyVolumeType, UnreadableFoldersCountAsEmpty) {
  kd::test::TempDir tmp;
  umask(022);  // folders the nobody user can pass through
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::vector<Card> cards = {
      {"LOCKED", {"BPAV/", "A001.RDM/"}, -1, "/"},  // no root listing
      {"LOCKED", {"MEDIAPRO.XML"}, 2, "/"},         // direct lookups still work
      {"CARD", {"DCIM/100EOS5D/", "hs_param.bin"}, 8, "/DCIM"},
      {"CARD", {kMxf}, -1, "/CONTENTS"},
      {"CARD", {"SUB/hs_param.bin"}, 8, "/SUB"},  // a literal level needs no listing
  };
  const std::vector<std::string> volumes = build(tmp, cards);
  for (std::size_t i = 0; i < cards.size(); ++i)
    ASSERT_EQ(chmod((volumes[i] + cards[i].locked).c_str(), 0311), 0);
  // A child that has dropped root, which would read every folder; it exits
  // with a bit set for each wrong code.
  const int status = kd::test::runAsNobody([&] {
    int wrong = 0;
    for (std::size_t i = 0; i < cards.size(); ++i)
      wrong |= (FerrimoVolumeChecker::verifyVolumeType(volumes[i]) != cards[i].expected) << i;
    return wrong;
  });
  if (status == kd::test::kCannotDrop)
    GTEST_SKIP() << "cannot switch to the nobody user (uid 65534)";
  EXPECT_EQ(status, 0) << "bit i set: case i gave the wrong code";
}

}  // namespace
