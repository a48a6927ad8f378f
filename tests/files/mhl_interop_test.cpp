// Hash lists shared with the ASC MHL reference tool (vendored under
// tests/third_party): it verifies the histories an offload and a check write,
// their directory hashes included, a check and an offload read and continue
// the histories it writes (one with an empty file, whose size it leaves out),
// a changed byte is found by both, and an offload in two kinds at once
// writes both in every entry. A card that keeps its own history (made by the
// reference tool) is checked against it and the history goes on in every
// destination.
#include <cstdio>
#include <filesystem>
#include <string>

#include "FilesFixture.h"
#include "OffloadSupport.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/FolderVerify.h"
#include "files/offload/Offload.h"
#include "support/Process.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;

const std::string kReference = KD_TEST_DATA_DIR "/../third_party/ascmhl-ref/run";

class MhlInterop : public FilesTest {
 protected:
  void SetUp() override {
    FilesTest::SetUp();
    if (reference({"--version"}) != 0)
      GTEST_SKIP() << "the reference tool does not run: Debian's python3-click, python3-lxml, "
                      "python3-pathspec, python3-xxhash, python3-dateutil are needed";
  }
  // The reference tool's exit status; its output goes to a file that a
  // failing check shows.
  int reference(std::vector<std::string> args) {
    args.insert(args.begin(), {"/bin/sh", kReference});
    return run(args, {.out = dir_ / "ref.out", .err = dir_ / "ref.out"});
  }
  std::string said() { return readFile(dir_ / "ref.out"); }
  OffloadReport offload(const std::string& card, const std::string& destination, bool reverify) {
    OffloadOptions options;
    options.card = card;
    options.destinations = {destination};
    options.reverify = reverify;
    return offloadCard(options);
  }
};

TEST_F(MhlInterop, HistoriesPassBetweenKdAndTheReferenceTool) {
  const SampleCard& sample = sampleCards()[1];  // holds an empty file and a hidden one
  const std::string card = dir_.mkdir("card/EOS_DIGITAL");
  writeCard(card, sample);

  dir_.mkdir("card/EOS_DIGITAL/DCIM/EMPTY");

  // kd's history verifies with the reference tool, its directory hashes too,
  // and so do those of a check's generation.
  const std::string ours = dir_.mkdir("ours");
  ASSERT_TRUE(offload(card, ours, false).allGood());
  EXPECT_EQ(reference({"debug", "verify", ours + "/EOS_DIGITAL"}), 0) << said();
  FolderVerifyOptions recheck;
  recheck.folder = ours + "/EOS_DIGITAL";
  ASSERT_TRUE(verifyFolder(recheck).manifest);
  EXPECT_EQ(reference({"debug", "verify", "-dh", "-v", ours + "/EOS_DIGITAL"}), 0) << said();
  for (const std::string generation : {"0001", "0002"}) {
    EXPECT_NE(said().find("folder        DCIM/100EOS5D OK (generation " + generation),
              std::string::npos)
        << said();
    EXPECT_NE(said().find("root folder   OK (generation " + generation), std::string::npos)
        << said();
  }

  // A history the reference tool began is continued by an offload: the files
  // read again from the device and found equal, a generation added.
  const std::string theirs = dir_.mkdir("theirs");
  for (const auto& [path, size] : sample.files) {
    fs::create_directories(fs::path(theirs + "/EOS_DIGITAL/" + path).parent_path());
    fs::copy_file(card + "/" + path, theirs + "/EOS_DIGITAL/" + path);
  }
  ASSERT_EQ(reference({"create", "-h", "xxh64", theirs + "/EOS_DIGITAL"}), 0) << said();
  FolderVerifyOptions check;
  check.folder = theirs + "/EOS_DIGITAL";
  check.mhl = false;
  const FolderVerifyReport checked = verifyFolder(check);
  EXPECT_TRUE(checked.allGood()) << checked.error;
  EXPECT_EQ(checked.filesVerified, sample.files.size());
  const OffloadReport continued = offload(card, theirs, true);
  ASSERT_TRUE(continued.allGood()) << continued.error;
  EXPECT_EQ(continued.destinations[0].filesSkipped, sample.files.size());
  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(theirs + "/EOS_DIGITAL", history, error)) << error;
  EXPECT_EQ(history.generations(), 2);
  EXPECT_EQ(history.latest("DCIM/100EOS5D/EMPTY.TXT", "xxh64")->action, kd::MhlAction::Verified);
  EXPECT_EQ(reference({"debug", "verify", theirs + "/EOS_DIGITAL"}), 0) << said();
  EXPECT_EQ(reference({"debug", "verify", "-dh", theirs + "/EOS_DIGITAL"}), 0) << said();
  EXPECT_EQ(historyProblems(theirs + "/EOS_DIGITAL/ascmhl"), "");

  // One changed byte: both find it.
  const std::string clip = theirs + "/EOS_DIGITAL/DCIM/100EOS5D/IMG_0001.CR2";
  std::string bytes = readFile(clip);
  bytes[bytes.size() / 2] ^= 1;
  FILE* f = std::fopen(clip.c_str(), "r+b");
  ASSERT_TRUE(f);
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
  EXPECT_NE(reference({"debug", "verify", theirs + "/EOS_DIGITAL"}), 0);
  EXPECT_NE(said().find("IMG_0001.CR2"), std::string::npos) << said();
  EXPECT_NE(reference({"debug", "verify", "-dh", theirs + "/EOS_DIGITAL"}), 0);
  EXPECT_NE(said().find("content hash mismatch   for DCIM/100EOS5D"), std::string::npos) << said();
  const FolderVerifyReport changed = verifyFolder(check);
  ASSERT_EQ(changed.changed.size(), 1u);
  EXPECT_EQ(changed.changed[0].path, "DCIM/100EOS5D/IMG_0001.CR2");
}

// A card with a history the reference tool made, offloaded to two folders:
// each destination holds that history and one generation more, as the
// reference tool reads it; a changed byte, a damaged history or a
// destination with a history of its own are caught.
TEST_F(MhlInterop, OffloadContinuesTheCardsOwnHistory) {
  enum class Spoil { None, Byte, Manifest, ForeignDestination };
  struct Row {
    const char* name;
    bool nested;  // CLIPS keeps a history of its own
    std::string hash;
    Spoil spoil;
  };
  const Row rows[] = {
      {"plain", false, "xxh64", Spoil::None},
      {"another kind than the history's", false, "md5", Spoil::None},
      {"two kinds, the history's the second", false, "md5,xxh64", Spoil::None},
      {"nested", true, "xxh64", Spoil::None},
      {"a byte changed after the history was made", true, "xxh64", Spoil::Byte},
      {"a damaged history", false, "xxh64", Spoil::Manifest},
      {"a destination with a history of its own", false, "xxh64", Spoil::ForeignDestination},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string base = dir_.mkdir(std::string("h") + std::to_string(&row - rows));
    const std::string card = base + "/SHUTTLE";
    for (const auto& [path, size] :
         {std::pair{"CLIPS/A001.MXF", 70000}, {"CLIPS/SUB/A002.MXF", 3000}, {"NOTES.TXT", 12}}) {
      fs::create_directories(fs::path(card + "/" + path).parent_path());
      FILE* f = std::fopen((card + "/" + path).c_str(), "wb");
      ASSERT_TRUE(f);
      const std::string bytes = varyingBytes(static_cast<std::size_t>(size), 7);
      std::fwrite(bytes.data(), 1, bytes.size(), f);
      std::fclose(f);
    }
    if (row.nested) {
      ASSERT_EQ(reference({"create", "-h", "xxh64", card + "/CLIPS"}), 0) << said();
    }
    ASSERT_EQ(reference({"create", "-h", "xxh64", card}), 0) << said();
    const std::string changed = card + "/CLIPS/SUB/A002.MXF";
    if (row.spoil == Spoil::Byte) {
      std::string bytes = readFile(changed);
      bytes[10] ^= 1;
      FILE* f = std::fopen(changed.c_str(), "r+b");
      ASSERT_TRUE(f);
      std::fwrite(bytes.data(), 1, bytes.size(), f);
      std::fclose(f);
    }
    if (row.spoil == Spoil::Manifest)
      for (const auto& e : fs::directory_iterator(card + "/ascmhl")) {
        if (e.path().extension() == ".mhl") fs::resize_file(e.path(), fs::file_size(e.path()) - 9);
      }
    const std::string d1 = base + "/d1", d2 = base + "/d2";
    fs::create_directories(d1);
    fs::create_directories(d2);
    if (row.spoil == Spoil::ForeignDestination) {
      fs::create_directories(d2 + "/SHUTTLE");
      ASSERT_EQ(reference({"create", "-h", "xxh64", d2 + "/SHUTTLE"}), 0) << said();
    }

    OffloadOptions options;
    options.card = card;
    options.destinations = {d1, d2};
    options.hash = row.hash;
    options.report = false;
    const OffloadReport r = offloadCard(options);
    if (row.spoil == Spoil::Manifest || row.spoil == Spoil::ForeignDestination) {
      EXPECT_NE(r.error.find(row.spoil == Spoil::Manifest ? "The card's hash list"
                                                          : "that is not the card's"),
                std::string::npos)
          << r.error;
      EXPECT_FALSE(fs::exists(d1 + "/SHUTTLE/NOTES.TXT"));
      EXPECT_FALSE(fs::exists(d1 + "/SHUTTLE/ascmhl"));
      continue;
    }
    if (row.spoil == Spoil::Byte) {
      EXPECT_FALSE(r.allGood());
      for (const OffloadDestination& d : r.destinations) {
        ASSERT_EQ(d.failures.size(), 1u);
        EXPECT_EQ(d.failures[0].path, d.folder + "/CLIPS/SUB/A002.MXF");
        EXPECT_NE(d.failures[0].reason.find("the source does not match its hash list"),
                  std::string::npos);
      }
      EXPECT_NE(reference({"debug", "verify", d1 + "/SHUTTLE"}), 0) << said();
      continue;
    }
    ASSERT_TRUE(r.allGood()) << r.error;
    EXPECT_EQ(r.filesMatchingHistory, 3u);
    if (row.hash.find(',') != std::string::npos) {
      EXPECT_EQ(r.bytesRead, r.bytes);  // the history's kind came from the one read
    }
    for (const std::string& d : {d1, d2}) {
      const std::string folder = d + "/SHUTTLE";
      EXPECT_EQ(reference({"debug", "verify", folder}), 0) << said();
      EXPECT_EQ(reference({"debug", "verify", "-dh", folder}), 0) << said();
      ASSERT_EQ(reference({"info", folder}), 0) << said();
      EXPECT_NE(said().find("Generation 2"), std::string::npos) << said();
      if (row.nested) {
        EXPECT_NE(said().find("Generation 3"), std::string::npos) << said();
      }
      EXPECT_EQ(readFile(folder + "/ascmhl/ascmhl_chain.xml")
                    .find(readFile(card + "/ascmhl/ascmhl_chain.xml").substr(0, 200)),
                0u);
      MhlHistory history;
      std::string error;
      ASSERT_TRUE(MhlHistory::load(row.nested ? folder + "/CLIPS" : folder, history, error));
      const std::string clip = row.nested ? "SUB/A002.MXF" : "CLIPS/SUB/A002.MXF";
      for (const std::string kind : {"md5", "xxh64"}) {
        if (row.hash.find(kind) == std::string::npos) continue;
        ASSERT_TRUE(history.latest(clip, kind)) << clip << " " << kind;
        EXPECT_EQ(history.latest(clip, kind)->action, kd::MhlAction::Verified) << kind;
      }
      EXPECT_EQ(historyProblems(folder + "/ascmhl"), "");
      FolderVerifyOptions check;
      check.folder = folder;
      check.mhl = false;
      EXPECT_TRUE(verifyFolder(check).allGood());
    }
    if (!row.nested) continue;
    // A later check of the copy reads what the folder inside keeps too, with
    // its own hash list, and the generations it adds read as one history.
    FolderVerifyOptions check;
    check.folder = d1 + "/SHUTTLE";
    FolderVerifyReport found = verifyFolder(check);
    ASSERT_TRUE(found.allGood()) << found.error;
    ASSERT_EQ(found.inside.size(), 1u);
    EXPECT_EQ(found.inside[0].filesVerified, 2u);
    EXPECT_EQ(reference({"debug", "verify", "-dh", check.folder}), 0) << said();
    ASSERT_EQ(reference({"info", check.folder}), 0) << said();
    EXPECT_NE(said().find("Generation 4"), std::string::npos) << said();
    std::string bytes = readFile(check.folder + "/CLIPS/SUB/A002.MXF");
    bytes[10] ^= 1;
    dir_.touch(check.folder.substr(dir_.path().size() + 1) + "/CLIPS/SUB/A002.MXF", bytes);
    found = verifyFolder(check);
    EXPECT_FALSE(found.allGood());
    ASSERT_EQ(found.inside.size(), 1u);
    ASSERT_EQ(found.inside[0].changed.size(), 1u);
    EXPECT_EQ(found.inside[0].changed[0].path, "SUB/A002.MXF");
  }
}

// kd offload --hash xxh64,md5: every entry, the directory hashes and the
// report hold both kinds from the one read, the md5 is md5sum's, and the
// reference tool verifies the history.
TEST_F(MhlInterop, AnOffloadInTwoKindsRecordsBoth) {
  const SampleCard& sample = sampleCards()[1];
  const std::string card = dir_.mkdir("card/EOS_DIGITAL");
  writeCard(card, sample);
  const std::string dest = dir_.mkdir("dest");
  ASSERT_EQ(run({KD_TOOL_PATH, "offload", "--json", "--hash", "xxh64,md5", card, dest},
                {.out = dir_ / "kd.out"}),
            0)
      << readFile(dir_ / "kd.out");
  EXPECT_NE(readFile(dir_ / "kd.out").find("\"hashes\": [\"xxh64\", \"md5\"]"), std::string::npos);
  const std::string folder = dest + "/EOS_DIGITAL";
  EXPECT_EQ(reference({"debug", "verify", "-dh", "-v", folder}), 0) << said();
  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(folder, history, error)) << error;
  for (const auto& [path, size] : sample.files) {
    SCOPED_TRACE(path);
    ASSERT_EQ(run({"/bin/sh", "-c", "md5sum < \"$0\"", card + "/" + path}, {.out = dir_ / "sum"}),
              0);
    const std::optional<MhlHash> md5 = history.latest(path, "md5");
    ASSERT_TRUE(md5);
    EXPECT_EQ(md5->digest + "  -\n", readFile(dir_ / "sum"));
    EXPECT_TRUE(history.latest(path, "xxh64"));
  }
  const std::string manifest = readFile(folder + "/ascmhl/" + history.chain()[0].file);
  EXPECT_NE(manifest.find("<md5>"), std::string::npos);  // a directory hash in md5
  for (const auto& entry : fs::directory_iterator(folder))
    if (entry.path().extension() == ".csv") {
      EXPECT_EQ(readFile(entry.path()).rfind("path,size,modified_utc,\"xxh64\",\"md5\",state", 0),
                0u);
    }
}

}  // namespace
}  // namespace kd::test
