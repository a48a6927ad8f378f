// Checking a copy later against its hash list: what changed, went, came or
// looks renamed is named, the outcome becomes a generation of its own, and
// a folder without a usable history is refused.
#include "files/offload/FolderVerify.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "FilesFixture.h"
#include "OffloadSupport.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/Offload.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;

class FolderVerify : public FilesTest {
 protected:
  // An offloaded sample card: DEST/EOS_DIGITAL with its history.
  std::string offloaded(const char* hash = "xxh64", const std::string& dest = "dest") {
    const std::string card = dir_ / "card/EOS_DIGITAL";
    if (!fs::exists(card)) writeCard(dir_.mkdir("card/EOS_DIGITAL"), sampleCards()[1]);
    OffloadOptions options;
    options.card = card;
    options.hash = hash;
    options.destinations = {dir_.mkdir(dest)};
    EXPECT_TRUE(offloadCard(options).allGood());
    return dir_ / dest + "/EOS_DIGITAL";
  }
  static FolderVerifyReport verify(const std::string& folder, bool mhl = true) {
    FolderVerifyOptions options;
    options.folder = folder;
    options.mhl = mhl;
    return verifyFolder(options);
  }
};

TEST_F(FolderVerify, NamesEveryDifferenceAndRecordsWhatItRead) {
  const std::string folder = offloaded();
  const FolderVerifyReport clean = verify(folder);
  ASSERT_TRUE(clean.allGood()) << clean.error;
  EXPECT_EQ(clean.filesVerified, sampleCards()[1].files.size());
  EXPECT_TRUE(clean.excluded.empty());
  ASSERT_TRUE(clean.manifest);

  // A folder swapped for a link to a good copy elsewhere once the check has
  // listed the folder: nothing is read through the link.
  {
    const std::string elsewhere = dir_ / "elsewhere";
    fs::copy(folder + "/DCIM", elsewhere, fs::copy_options::recursive);
    FolderVerifyOptions options;
    options.folder = folder;
    options.mhl = false;
    OffloadProgress progress;
    bool swapped = false;
    progress.fileStarted = [&](const std::string&, std::uint64_t) {
      if (std::exchange(swapped, true)) return;
      fs::rename(folder + "/DCIM", dir_ / "DCIM.aside");
      fs::create_directory_symlink(elsewhere, folder + "/DCIM");
    };
    const FolderVerifyReport through = verifyFolder(options, progress);
    EXPECT_FALSE(through.allGood());
    EXPECT_EQ(through.changed.size(), 3u);  // the three files below DCIM
    fs::remove(folder + "/DCIM");
    fs::rename(dir_ / "DCIM.aside", folder + "/DCIM");
  }

  // A changed byte, a file gone, one renamed, one new, one beside the others
  // that the history's patterns leave out.
  const std::string clips = folder + "/DCIM/100EOS5D/";
  std::string bytes = readFile(clips + "IMG_0001.CR2");
  bytes[7] ^= 1;
  fs::remove(clips + "IMG_0001.CR2");
  dir_.touch("dest/EOS_DIGITAL/DCIM/100EOS5D/IMG_0001.CR2", bytes);
  fs::remove(clips + "EMPTY.TXT");
  fs::rename(clips + "MVI_0002.MOV", clips + "MVI_0002 copy.MOV");
  dir_.touch("dest/EOS_DIGITAL/DCIM/NEW.TXT", "new");
  dir_.touch("dest/EOS_DIGITAL/DCIM/._NEW.TXT", "side file");

  const FolderVerifyReport dry = verify(folder, false);
  EXPECT_FALSE(dry.allGood());
  EXPECT_FALSE(dry.manifest);
  const FolderVerifyReport found = verify(folder);
  ASSERT_TRUE(found.error.empty()) << found.error;
  ASSERT_EQ(found.changed.size(), 1u);
  EXPECT_EQ(found.changed[0].path, "DCIM/100EOS5D/IMG_0001.CR2");
  EXPECT_NE(found.changed[0].recorded, found.changed[0].found);
  EXPECT_EQ(found.missing, std::vector<std::string>{"DCIM/100EOS5D/EMPTY.TXT"});
  EXPECT_EQ(found.added, std::vector<std::string>{"DCIM/NEW.TXT"});
  ASSERT_EQ(found.renamed.size(), 1u);
  EXPECT_EQ(found.renamed[0].second, "DCIM/100EOS5D/MVI_0002 copy.MOV");
  EXPECT_EQ(found.filesVerified, 1u);  // .hidden_settings
  ASSERT_EQ(found.excluded.size(), 1u);
  EXPECT_EQ(found.excluded[0].path, "DCIM/._NEW.TXT");

  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(folder, history, error)) << error;
  ASSERT_EQ(history.generations(), 3);
  const MhlGeneration& last = history.generationList().back();
  EXPECT_EQ(last.process, "in-place");
  EXPECT_EQ(last.verified, 1u);
  EXPECT_EQ(last.failed, 1u);
  EXPECT_EQ(history.latest("DCIM/100EOS5D/IMG_0001.CR2", "xxh64")->action, kd::MhlAction::Failed);

  // The failed record is not what the next check compares with: the file is
  // still changed.
  const FolderVerifyReport again = verify(folder, false);
  ASSERT_EQ(again.changed.size(), 1u);
  EXPECT_EQ(again.changed[0].recorded, found.changed[0].recorded);
}

// A history with two kinds per file: a difference in either fails the file,
// and the kind that differs is named.
TEST_F(FolderVerify, EveryRecordedKindIsCompared) {
  const std::string clip = "DCIM/100EOS5D/IMG_0001.CR2";
  const struct {
    const char* what;
    const char* dest;
    const char* kind;  // the one to differ
    bool changeByte;   // else the hash list's md5 of the file is changed
  } cases[] = {
      {"a changed byte", "byte", "xxh64", true},
      {"an md5 record that differs", "record", "md5", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string folder = offloaded("xxh64,md5", c.dest);
    if (c.changeByte) {
      std::string bytes = readFile(folder + "/" + clip);
      bytes[7] ^= 1;
      fs::remove(folder + "/" + clip);
      dir_.touch(std::string(c.dest) + "/EOS_DIGITAL/" + clip, bytes);
    } else {
      // A manifest changed by hand, its fingerprint in the chain with it.
      MhlHistory history;
      std::string error;
      ASSERT_TRUE(MhlHistory::load(folder, history, error)) << error;
      const std::string md5 = history.latest(clip, "md5")->digest;
      const std::string path = folder + "/ascmhl/" + history.chain()[0].file;
      std::string manifest = readFile(path);
      manifest.replace(manifest.find(md5), 1, md5[0] == '0' ? "1" : "0");
      std::string chain = readFile(folder + "/ascmhl/ascmhl_chain.xml");
      chain.replace(chain.find(history.chain()[0].c4), 90, mhlC4Id(manifest));
      fs::remove(path);
      fs::remove(folder + "/ascmhl/ascmhl_chain.xml");
      dir_.touch(std::string(c.dest) + "/EOS_DIGITAL/ascmhl/" + history.chain()[0].file, manifest);
      dir_.touch(std::string(c.dest) + "/EOS_DIGITAL/ascmhl/ascmhl_chain.xml", chain);
    }
    const FolderVerifyReport report = verify(folder);
    ASSERT_TRUE(report.error.empty()) << report.error;
    ASSERT_EQ(report.changed.size(), 1u);
    EXPECT_EQ(report.changed[0].path, clip);
    EXPECT_NE(report.changed[0].reason.find(std::string("(in ") + c.kind + ")"), std::string::npos)
        << report.changed[0].reason;
    EXPECT_EQ(report.filesVerified, sampleCards()[1].files.size() - 1);
    MhlHistory history;
    std::string error;
    ASSERT_TRUE(MhlHistory::load(folder, history, error)) << error;
    for (const char* kind : {"xxh64", "md5"})
      EXPECT_EQ(history.latest(clip, kind)->action, kd::MhlAction::Failed) << kind;
  }
}

TEST_F(FolderVerify, AFolderWithoutAUsableHistoryIsRefused) {
  const struct {
    const char* what;
    std::string folder;
    const char* says;
  } cases[] = {
      {"missing", dir_ / "none", "No such file"},
      {"no history", dir_.mkdir("plain"), "keeps no hash list"},
      {"damaged", dir_.mkdir("damaged"), "cannot be read"},
  };
  dir_.touch("damaged/ascmhl/ascmhl_chain.xml", "<ascmhldirectory");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const FolderVerifyReport report = verify(c.folder);
    EXPECT_FALSE(report.allGood());
    EXPECT_NE(report.error.find(c.says), std::string::npos) << report.error;
  }
  EXPECT_EQ(readFile(dir_ / "damaged/ascmhl/ascmhl_chain.xml"), "<ascmhldirectory");
}

}  // namespace
}  // namespace kd::test
