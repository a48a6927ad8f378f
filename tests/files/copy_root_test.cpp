// The verified copy onto a destination that fills up: a small tmpfs of our
// own, mounted for the test.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/WorkQueue.h"
#include "files/DuringCopy.h"
#include "files/FilesFixture.h"
#include "files/KdFileManager.h"
#include "support/Process.h"
#include "support/ScopedTmpfs.h"

namespace {

using Strings = std::vector<std::string>;

class CopyRoot : public kd::test::FilesTest {};

TEST_F(CopyRoot, AFullDestinationFailsVerificationWhileTheOtherVerifies) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  const kd::test::ScopedTmpfs full(dir_.path() + "/full-" + std::to_string(::getpid()), "size=1m");
  if (!full.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  // Zeros: a hole or a short file must not read back as the source.
  const std::string source = dir_.touch("zeros", std::string(3 << 20, '\0'));
  const std::string good = dir_ / "good/zeros", bad = full.path() + "/zeros";

  struct Heard {
    std::mutex mu;
    Strings failed, checksums;
    int finished = 0;
  };
  auto heard = std::make_shared<Heard>();
  auto delegate = std::make_shared<KdFileCopyDelegate>();
  delegate->fileCopyVerificationFailed = [heard](const KdCopySettings& s, const std::string& f) {
    std::lock_guard lock(heard->mu);
    heard->failed.push_back(f);
    heard->checksums.push_back(s.destChecksum.value_or(""));
  };
  delegate->fileCopyFinished = [heard](const KdCopySettings&) { ++heard->finished; };

  const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
      source, {good, bad}, *KdFileManager::copyDigestForVerificationType(3), delegate);
  kd::WorkQueue::shared().waitUntilIdle();
  EXPECT_TRUE(r.completed);
  EXPECT_FALSE(r.allGood());
  ASSERT_EQ(r.destinations.size(), 2u);
  EXPECT_TRUE(r.destinations[0].verified);
  EXPECT_FALSE(r.destinations[1].written);
  EXPECT_FALSE(r.destinations[1].verified);
  EXPECT_NE(r.destinations[1].digest, r.sourceDigest);
  EXPECT_EQ(r.settings.failedDestinations, Strings{bad});
  EXPECT_EQ(heard->failed, Strings{bad});
  EXPECT_EQ(heard->checksums, Strings{*r.destinations[1].digest});
  EXPECT_EQ(heard->finished, 1);
  // One line per chunk that did not fit.
  const Strings console = platform_.systemLogMessages();
  ASSERT_FALSE(console.empty());
  EXPECT_GE(console.size(), 2u * 16u - 1);  // about 2 of the 3 MiB
  for (const std::string& line : console) EXPECT_EQ(line, "Error writing file " + bad + ": 1");

  // The tool tells it by its exit status.
  ::unlink(bad.c_str());
  const kd::test::SpawnOptions quiet{.out = "/dev/null", .err = "/dev/null"};
  EXPECT_EQ(kd::test::run({KD_TOOL_PATH, "copy", source, dir_ / "other", bad}, quiet), 1);
  EXPECT_EQ(
      kd::test::run({KD_TOOL_PATH, "copy", "--verify", "none", source, dir_ / "third", bad}, quiet),
      1);
}

TEST_F(CopyRoot, ASourceOnAVolumeUnmountedMidCopyIsCopiedWhole) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  const kd::test::ScopedTmpfs card(dir_.path() + "/card-" + std::to_string(::getpid()), "size=48m");
  if (!card.mounted()) GTEST_SKIP() << "cannot mount a tmpfs here";
  std::string contents(40 << 20, '\0');
  for (std::size_t i = 0; i < contents.size(); i += 4096) contents[i] = static_cast<char>(i >> 12);
  const std::string source = card.path() + "/A001.mov";
  { std::ofstream(source, std::ios::binary) << contents; }
  const std::string a = dir_ / "one/A001.mov", b = dir_ / "two/A001.mov";
  bool detached = false;
  kd::test::DuringCopy during(a, 4 << 20,
                              [&] { detached = ::umount2(card.path().c_str(), MNT_DETACH) == 0; });
  const KdFileManager::CopyResult r = KdFileManager::copyFileWithOutcome(
      source, {a, b}, *KdFileManager::copyDigestForVerificationType(3));
  const long long at = during.end();
  if (at < 0 || at + (8 << 20) > static_cast<long long>(contents.size()))
    GTEST_SKIP() << "the copy ended before the unmount";
  // The volume went from the mount table while the open source still read.
  ASSERT_TRUE(detached);
  EXPECT_EQ(kd::test::readFile("/proc/self/mounts").find(card.path()), std::string::npos);
  EXPECT_TRUE(r.allGood());
  EXPECT_EQ(kd::test::readFile(a), contents);
  EXPECT_EQ(kd::test::readFile(b), contents);
  EXPECT_EQ(platform_.systemLogMessages(), Strings{});
}

}  // namespace
