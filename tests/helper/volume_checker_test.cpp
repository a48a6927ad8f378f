#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "helper/FerrimoVolumeChecker.h"
#include "support/TempDir.h"

namespace {

struct Card {
  std::string volume;                // the volume's folder name
  std::vector<std::string> entries;  // below the volume; a trailing "/" makes a folder
  std::int64_t expected;
};

// Builds `card` in its own folder below `tmp` and returns the volume path.
std::string build(const kd::test::TempDir& tmp, const Card& card, int index) {
  const std::string volume = "case" + std::to_string(index) + "/" + card.volume;
  std::string path = tmp.mkdir(volume);
  for (const std::string& entry : card.entries) {
    if (entry.ends_with('/'))
      tmp.mkdir(volume + "/" + entry);
    else
      tmp.touch(volume + "/" + entry);
  }
  return path;
}

const std::string kMxf = "CONTENTS/CLIPS001/C0001/C0001.MXF";
const std::string kDjiClip = "1234_5678_20200101_x/clip.mov";

TEST(VerifyVolumeType, RecognisesEachLayoutInOrder) {
  const Card cards[] = {
      {"CARD", {}, -1},
      // 0, ahead of everything else.
      {"CARD", {"CONTENTS/LASTCLIP.TXT"}, 0},
      {"CARD", {"CONTENTS/LASTCLIP.TXT", "BPAV/", "A001.RDM/"}, 0},
      // 1: an "RDM" extension on any root entry, file or folder.
      {"CARD", {"A001.RDM/"}, 1},
      {"CARD", {"A001_C001.RDM"}, 1},
      {"CARD", {"a001.rdm/"}, -1},
      // 2
      {"CARD", {"MEDIAPRO.XML"}, 2},
      {"CARD", {"mediapro.xml"}, -1},
      // 3: the name in the root listing.
      {"CARD", {"BPAV/"}, 3},
      {"CARD", {"bpav/"}, -1},
      // 4
      {"CARD", {"PRIVATE/AVCHD/"}, 4},
      {"CARD", {"AVCHD/"}, 4},
      // 5, and a DCIM without it falls through to later tests.
      {"CARD", {"DCIM/100EOS5D/"}, 5},
      {"CARD", {"DCIM/100CANON/"}, -1},
      {"CARD", {"DCIM/100CANON/", kMxf}, 7},
      {"CARD", {"DCIM/100EOS5D/", kMxf}, 5},
      // 6: (FCP or AVID) and BIN, then a clip named like the volume's start.
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_FCP.xml", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.MOV"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOX_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT2/SHOOT1_AVID.ale", "SHOOT2/SHOOT1_BIN.bin", "SHOOT2/SHOO_0001.mov"}, -1},
      {"ABCD", {"ABCD/ABCD_FCP.xml", "ABCD/ABCD_BIN.bin", "ABCD/ABCD.mov"}, 6},
      // Names shorter than four characters never match, and the later tests still run.
      {"ABC", {"ABC/ABC_FCP.xml", "ABC/ABC_BIN.bin", "ABC/ABC.mov", "ABC/ABC_1.mov"}, -1},
      {"ABC", {"ABC/ABC_FCP.xml", "ABC/ABC_BIN.bin", "ABC/ABC.mov", "hs_param.bin"}, 8},
      // 7: CONTENTS and a clip exactly three levels below it.
      {"CARD", {kMxf}, 7},
      {"CARD", {"CONTENTS/CLIPS001/C0001/C0001.mxf"}, -1},
      {"CARD", {"CONTENTS/CLIPS001/C0001.MXF"}, -1},
      // 8: at the root or one level down, no deeper.
      {"CARD", {"hs_param.bin"}, 8},
      {"CARD", {"SUB/hs_param.bin"}, 8},
      {"CARD", {"A/B/hs_param.bin"}, -1},
      // 9: name prefix, then a 4_4_8_ folder holding a ".mov".
      {"DJI_001", {kDjiClip}, 9},
      {"CARD", {kDjiClip}, -1},
      {"dji_001", {kDjiClip}, -1},
      {"DJI_001", {"123_5678_20200101_x/clip.mov"}, -1},
      {"DJI_001", {"1234_5678_20200101_x/clip.MOV"}, -1},
  };
  kd::test::TempDir tmp;
  int index = 0;
  for (const Card& card : cards) {
    const std::string volume = build(tmp, card, index++);
    std::string description = card.volume + ":";
    for (const std::string& e : card.entries) description += " " + e;
    EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(volume), card.expected) << description;
  }
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(tmp / "missing"), -1);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(""), -1);
}

TEST(VerifyVolumeType, DanglingLinksDoNotExist) {
  kd::test::TempDir tmp;
  const std::string card = tmp.mkdir("CARD");
  ASSERT_EQ(symlink((tmp / "nowhere").c_str(), (card + "/MEDIAPRO.XML").c_str()), 0);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(card), -1);
}

// Runs `check` in a forked child that has dropped root (which reads every
// folder) for the nobody user; the child's exit status is the check's
// result, or 3 when it could not drop.
int runUnprivileged(const std::function<bool()>& check) {
  pid_t pid = fork();
  if (pid == 0) {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                           setresuid(65534, 65534, 65534) != 0))
      _exit(3);
    _exit(check() ? 0 : 1);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(VerifyVolumeType, UnreadableFoldersCountAsEmpty) {
  kd::test::TempDir tmp;
  umask(022);  // folders the nobody user can pass through
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  // The locked folder (mode 0311) can be passed through but not listed.
  const struct {
    Card card;
    std::string locked;
  } cases[] = {
      {{"LOCKED", {"BPAV/", "A001.RDM/"}, -1}, ""},  // no root listing
      {{"LOCKED", {"MEDIAPRO.XML"}, 2}, ""},         // direct lookups still work
      {{"CARD", {"DCIM/100EOS5D/"}, -1}, "/DCIM"},
      {{"CARD", {"DCIM/100EOS5D/", "hs_param.bin"}, 8}, "/DCIM"},
      {{"CARD", {"CONTENTS/CLIPS001/C0001/C0001.MXF"}, -1}, "/CONTENTS"},
  };
  std::vector<std::string> volumes;
  for (const auto& c : cases) {
    volumes.push_back(build(tmp, c.card, static_cast<int>(volumes.size())));
    ASSERT_EQ(chmod((volumes.back() + c.locked).c_str(), 0311), 0);
  }
  const int status = runUnprivileged([&] {
    bool ok = true;
    for (std::size_t i = 0; i < volumes.size(); ++i) {
      const std::int64_t code = FerrimoVolumeChecker::verifyVolumeType(volumes[i]);
      if (code != cases[i].card.expected) {
        std::fprintf(stderr, "%s: %lld\n", volumes[i].c_str(), static_cast<long long>(code));
        ok = false;
      }
    }
    return ok;
  });
  if (status == 3) GTEST_SKIP() << "cannot switch to the nobody user (uid 65534) here";
  EXPECT_EQ(status, 0);
}

}  // namespace
