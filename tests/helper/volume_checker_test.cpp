#include <fcntl.h>
#include <grp.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "helper/FerrimoVolumeChecker.h"
#include "support/ChildMode.h"
#include "support/TempDir.h"

extern char** environ;

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
      {"CARD", {".hidden", "notes.txt", "misc/"}, -1},
      // 0, ahead of everything else.
      {"CARD", {"CONTENTS/LASTCLIP.TXT"}, 0},
      {"CARD", {"CONTENTS/LASTCLIP.TXT", "BPAV/", "A001.RDM/"}, 0},
      {"CARD", {"LASTCLIP.TXT"}, -1},
      // 1: an "RDM" extension on any root entry, file or folder.
      {"CARD", {"A001.RDM/"}, 1},
      {"CARD", {"A001_C001.RDM"}, 1},
      {"CARD", {"a001.rdm/"}, -1},
      {"CARD", {"sub/A001.RDM/"}, -1},
      // 2
      {"CARD", {"MEDIAPRO.XML"}, 2},
      {"CARD", {"mediapro.xml"}, -1},
      // 3: the name in the root listing.
      {"CARD", {"BPAV/"}, 3},
      {"CARD", {"BPAV"}, 3},
      {"CARD", {"bpav/"}, -1},
      // 4
      {"CARD", {"PRIVATE/AVCHD/"}, 4},
      {"CARD", {"AVCHD/"}, 4},
      {"CARD", {"PRIVATE/"}, -1},
      // 5, and a DCIM without it falls through to later tests.
      {"CARD", {"DCIM/100EOS5D/"}, 5},
      {"CARD", {"DCIM/100EOS"}, 5},
      {"CARD", {"DCIM/100CANON/"}, -1},
      {"CARD", {"DCIM/100CANON/", kMxf}, 7},
      {"CARD", {"DCIM/100EOS5D/", kMxf}, 5},
      // 6: (FCP or AVID) and BIN, then a clip named like the volume's start.
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_FCP.xml", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, 6},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_FCP.xml", "SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOO_0001.MOV"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/SHOX_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT1/SHOOT1_AVID.ale", "SHOOT1/SHOOT1_BIN.bin", "SHOOT1/shoo_0001.mov"}, -1},
      {"SHOOT1", {"SHOOT2/SHOOT1_AVID.ale", "SHOOT2/SHOOT1_BIN.bin", "SHOOT2/SHOO_0001.mov"}, -1},
      {"ABCD", {"ABCD/ABCD_FCP.xml", "ABCD/ABCD_BIN.bin", "ABCD/ABCD.mov"}, 6},
      // Names shorter than four characters never match, and the later tests still run.
      {"ABC", {"ABC/ABC_FCP.xml", "ABC/ABC_BIN.bin", "ABC/ABC.mov", "ABC/ABC_1.mov"}, -1},
      {"ABC", {"ABC/ABC_FCP.xml", "ABC/ABC_BIN.bin", "ABC/ABC.mov", "hs_param.bin"}, 8},
      // 7: CONTENTS and a clip exactly three levels below it.
      {"CARD", {kMxf}, 7},
      {"CARD", {"CONTENTS/CLIPS001/C0001/C0001.mxf"}, -1},
      {"CARD", {"CONTENTS/CLIPS001/C0001.MXF"}, -1},
      {"CARD", {"CONTENTS/CLIP001/C0001/C0001.MXF"}, -1},
      // 8: at the root or one level down, no deeper.
      {"CARD", {"hs_param.bin"}, 8},
      {"CARD", {"SUB/hs_param.bin"}, 8},
      {"CARD", {".hidden/hs_param.bin"}, 8},
      {"CARD", {"A/B/hs_param.bin"}, -1},
      // 9: name prefix, then a 4_4_8_ folder holding a ".mov".
      {"DJI_001", {kDjiClip}, 9},
      {"CARD", {kDjiClip}, -1},
      {"dji_001", {kDjiClip}, -1},
      {"DJI_001", {"123_5678_20200101_x/clip.mov"}, -1},
      {"DJI_001", {"1234_5678_20200101/clip.mov"}, -1},
      {"DJI_001", {"1234_5678_20200101_x/clip.MOV"}, -1},
      {"DJI_001", {"1234_5678_20200101_x/sub/clip.mov"}, -1},
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

TEST(VerifyVolumeType, FollowsLinksLikeTheVolumeWould) {
  kd::test::TempDir tmp;
  const std::string card = tmp.mkdir("CARD");
  tmp.touch("elsewhere/MEDIAPRO.XML");
  ASSERT_EQ(symlink((tmp / "nowhere").c_str(), (card + "/MEDIAPRO.XML").c_str()), 0);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(card), -1);
  ASSERT_EQ(unlink((card + "/MEDIAPRO.XML").c_str()), 0);
  ASSERT_EQ(symlink((tmp / "elsewhere/MEDIAPRO.XML").c_str(), (card + "/MEDIAPRO.XML").c_str()), 0);
  EXPECT_EQ(FerrimoVolumeChecker::verifyVolumeType(card), 2);
}

// Counts the opens of one folder; close events keep the kernel from merging
// two opens in a row into one event.
int countOpens(const std::string& folder, const std::function<void()>& action) {
  kd::UniqueFd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!fd || inotify_add_watch(fd.get(), folder.c_str(), IN_OPEN | IN_CLOSE_NOWRITE) < 0) return -1;
  action();
  int opens = 0;
  alignas(inotify_event) char buf[16384];
  ssize_t n;
  while ((n = read(fd.get(), buf, sizeof buf)) > 0) {
    for (char* p = buf; p < buf + n;) {
      const auto* ev = reinterpret_cast<const inotify_event*>(p);
      if ((ev->mask & IN_OPEN) && ev->len == 0) ++opens;
      p += sizeof(inotify_event) + ev->len;
    }
  }
  return opens;
}

TEST(VerifyVolumeType, ListsTheRootOnlyAsOftenAsNeeded) {
  // The root is listed once up front and once by the "/*/hs_param.bin"
  // search; the last search lists it again only for a "DJI_" name.
  kd::test::TempDir tmp;
  for (const auto& [name, opens] : {std::pair{"CARD", 2}, std::pair{"DJI_001", 3}}) {
    const std::string card = tmp.mkdir(name);
    tmp.touch(std::string(name) + "/misc/notes.txt");
    std::int64_t code = 0;
    const int counted =
        countOpens(card, [&] { code = FerrimoVolumeChecker::verifyVolumeType(card); });
    if (counted < 0) GTEST_SKIP() << "inotify is not available here";
    EXPECT_EQ(code, -1);
    EXPECT_EQ(counted, opens) << name;
  }
}

// Child side of the unreadable-folder test: drops root (which reads
// everything) for the nobody user and prints the code of each volume.
int detectUnprivileged(const std::vector<std::string>& args) {
  if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                         setresuid(65534, 65534, 65534) != 0)) {
    std::printf("cannot drop privileges\n");
    return 3;
  }
  for (const std::string& volume : args) {
    if (access(volume.c_str(), X_OK) != 0) {
      std::printf("cannot reach %s\n", volume.c_str());
      return 3;
    }
    std::printf("%lld ", static_cast<long long>(FerrimoVolumeChecker::verifyVolumeType(volume)));
  }
  return 0;
}
KD_CHILD_MODE("detect-unprivileged", detectUnprivileged);

// Runs this program as a child in `mode`; returns its exit status and output.
std::pair<int, std::string> runChild(const std::string& mode,
                                     const std::vector<std::string>& args) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return {-1, ""};
  kd::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
  std::vector<std::string> argv{kd::test::selfExecutable(), "--kd-child", mode};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (std::string& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  writeEnd.reset();
  if (rc != 0) return {-1, ""};
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = kd::retryOnEintr([&] { return read(readEnd.get(), buf, sizeof buf); })) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  int status = 0;
  kd::retryOnEintr([&] { return waitpid(pid, &status, 0); });
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST(VerifyVolumeType, UnreadableFoldersCountAsEmpty) {
  kd::test::TempDir tmp;
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  // Each can be passed through but not listed (mode 0311).
  const Card cards[] = {
      {"LOCKED", {"BPAV/"}, -1},                            // root listing empty
      {"LOCKED", {"A001.RDM/"}, -1},                        // root listing empty
      {"LOCKED", {"MEDIAPRO.XML"}, 2},                      // a lookup still works
      {"CARD", {"DCIM/100EOS5D/"}, -1},                     // DCIM locked
      {"CARD", {"DCIM/100EOS5D/", "hs_param.bin"}, 8},      // DCIM locked: falls through
      {"CARD", {"CONTENTS/CLIPS001/C0001/C0001.MXF"}, -1},  // CONTENTS locked
  };
  const char* lockedPart[] = {"", "", "", "DCIM", "DCIM", "CONTENTS"};
  std::vector<std::string> volumes;
  std::string expected;
  int index = 0;
  for (const Card& card : cards) {
    const std::string volume = build(tmp, card, index);
    ASSERT_EQ(chmod(volume.substr(0, volume.rfind('/')).c_str(), 0755), 0);
    const std::string locked = *lockedPart[index] ? volume + "/" + lockedPart[index] : volume;
    ASSERT_EQ(chmod(locked.c_str(), 0311), 0);
    volumes.push_back(volume);
    expected += std::to_string(card.expected) + " ";
    ++index;
  }
  auto [status, out] = runChild("detect-unprivileged", volumes);
  if (status == 3) GTEST_SKIP() << "the child cannot run unprivileged: " << out;
  ASSERT_EQ(status, 0) << out;
  EXPECT_EQ(out, expected);
}

}  // namespace
