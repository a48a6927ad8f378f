// The ASC MHL history on an exFAT destination (a loop image mounted through
// exfat-fuse), where a manifest can be neither renamed without replacing nor
// linked into place: it is created there exclusively, and a taken name is
// still never overwritten.
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "ScopedMount.h"
#include "files/mhl/MhlHistory.h"
#include "support/TempDir.h"

namespace {

using kd::MhlHash;
using kd::MhlHistory;
using kd::test::readFile;
using kd::test::TempDir;
using Clock = std::chrono::system_clock;

Clock::time_point at(long long s) {
  return Clock::time_point(std::chrono::seconds(s));
}

TEST(AscMhlRoot, GenerationsOnExfatAndATakenNameIsKept) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for the loop device and mount";
  kd::test::ScopedMount card("card" + std::to_string(::getpid()),
                             {"/usr/sbin/mkfs.exfat", "-L", "CARD"}, "/usr/sbin/mount.exfat-fuse");
  if (!card.ok()) GTEST_SKIP() << card.error();
  const std::string tracked = card.point() + "/CARD";
  std::filesystem::create_directory(tracked);
  const MhlHash hash{
      "Clips/A.mov", 5, at(1700000000), "xxh64", "0ea03b369a463d9d", kd::MhlAction::Original,
      at(1700000100)};
  std::string error;
  for (long long day = 0; day < 2; ++day) {
    MhlHistory history;
    ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
    ASSERT_TRUE(history.addGeneration({at(1700000200 + day * 86400), "h", "kd", "1"}, "CARD", {},
                                      {hash}, error))
        << error;
  }
  MhlHistory history;
  ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
  EXPECT_EQ(history.generations(), 2);
  const std::string folder = tracked + "/ascmhl";
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 3)
      << "no temporary file left";

  const std::string taken = folder + "/0003_CARD_2023-11-17_221640Z.mhl";
  std::ofstream(taken) << "someone else's";
  const std::string chain = readFile(folder + "/ascmhl_chain.xml");
  EXPECT_FALSE(history.addGeneration({at(1700259400), "h", "kd", "1"}, "CARD", {}, {hash}, error));
  EXPECT_EQ(readFile(taken), "someone else's");
  EXPECT_EQ(readFile(folder + "/ascmhl_chain.xml"), chain);
}

}  // namespace
