// Offloading cards to folders: every layout with every hash, hash lists that
// the schemas accept and that grow by a generation per run, resuming, a
// changed byte found by reading again, refusals that leave everything as it
// was, and kd offload's summary and exit statuses.
#include "files/offload/Offload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "FaultShim.h"
#include "FilesFixture.h"
#include "OffloadSupport.h"
#include "common/UniqueFd.h"
#include "files/copy/FileDigest.h"
#include "files/mhl/MhlHistory.h"

namespace kd::test {
namespace {

namespace fs = std::filesystem;

class Offload : public FilesTest {
 protected:
  // A sample card in the scratch folder, and two empty destinations.
  std::string makeCard(const SampleCard& card) {
    const std::string root = dir_.mkdir("cards/" + std::string(card.name));
    writeCard(root, card);
    dir_.mkdir("d1");
    dir_.mkdir("d2");
    return root;
  }
  OffloadReport offload(const std::string& card, std::string hash = "xxh64", bool mhl = true,
                        bool reverify = false, const OffloadProgress& progress = {}) {
    OffloadOptions options;
    options.card = card;
    options.destinations = {dir_ / "d1", dir_ / "d2"};
    options.hash = std::move(hash);
    options.mhl = mhl;
    options.reverify = reverify;
    return offloadCard(options, progress);
  }
  static std::vector<std::string> listing(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& e : fs::recursive_directory_iterator(folder)) names.push_back(e.path());
    std::sort(names.begin(), names.end());
    return names;
  }
};

// Runs kd; its standard output, and the exit status in `status`.
std::string kd(const std::string& arguments, int& status) {
  FILE* pipe = ::popen((std::string(KD_TOOL_PATH) + " " + arguments + " 2>/dev/null").c_str(), "r");
  std::string out;
  char buf[4096];
  while (std::size_t n = std::fread(buf, 1, sizeof buf, pipe)) out.append(buf, n);
  status = WEXITSTATUS(::pclose(pipe));
  return out;
}

TEST_F(Offload, EveryLayoutWithEveryHashReachesBothDestinations) {
  const bool xmllint = ::access("/usr/bin/xmllint", X_OK) == 0;
  const struct {
    const char* hash;
    bool mhl;
  } hashes[] = {{"xxh64", true}, {"xxh3", true},    {"xxh128", true}, {"md5", true},
                {"sha1", true},  {"sha256", false}, {"sha512", false}};
  for (const SampleCard& sample : sampleCards()) {
    const std::string card = makeCard(sample);
    for (const auto& h : hashes) {
      SCOPED_TRACE(std::string(sample.name) + " " + h.hash);
      // The copies run beside each other: the bytes told never go back.
      std::uint64_t told = 0;
      bool back = false;
      OffloadProgress progress;
      progress.bytes = [&](std::uint64_t done, std::uint64_t) {
        back = back || done < told;
        told = done;
      };
      const OffloadReport report = offload(card, h.hash, h.mhl, false, progress);
      ASSERT_TRUE(report.allGood()) << report.error;
      EXPECT_FALSE(back);
      EXPECT_EQ(told, report.bytes);
      EXPECT_EQ(report.files, sample.files.size());
      EXPECT_EQ(report.excluded.size(), 5u);  // the four system folders and "._notes"
      for (const OffloadDestination& d : report.destinations) {
        EXPECT_EQ(d.filesCopied, sample.files.size());
        expectOffloaded(card, d.folder, sample);
        EXPECT_EQ(d.manifest.has_value(), h.mhl);
        if (h.mhl && xmllint) {
          EXPECT_EQ(historyProblems(d.folder + "/ascmhl"), "");
        }
        // Each file is recorded with its own digest, in the report and in
        // the hash list, whichever copy ended first.
        MhlHistory history;
        std::string error;
        if (h.mhl) {
          ASSERT_TRUE(MhlHistory::load(d.folder, history, error)) << error;
        }
        for (const OffloadCardFile& f : report.cardFiles) {
          const UniqueFd fd(::open((card + "/" + f.path).c_str(), O_RDONLY | O_CLOEXEC));
          const std::optional<std::string> own = copy::digestOfOpenFile(
              fd.get(), *KdFileManager::copyDigestNamed(h.hash), nullptr, error);
          ASSERT_TRUE(own) << f.path << ": " << error;
          EXPECT_EQ(f.digest, own) << f.path;
          if (!h.mhl) continue;
          const std::optional<MhlHash> recorded = history.latest(f.path, h.hash);
          EXPECT_EQ(recorded ? recorded->digest : "", *own) << d.folder << "/" << f.path;
        }
      }
      for (const char* d : {"d1", "d2"}) removeTree(dir_ / d), dir_.mkdir(d);
    }
  }
  if (!xmllint) GTEST_SKIP() << "xmllint is missing: the hash lists were not checked";
}

TEST_F(Offload, RepeatedRunsSkipWhatIsThereAndAddAGeneration) {
  const SampleCard& sample = sampleCards()[1];
  const std::string card = makeCard(sample);
  ASSERT_TRUE(offload(card).allGood());
  dir_.touch("cards/EOS_DIGITAL/DCIM/100EOS5D/IMG_0003.CR2", "new clip");

  OffloadReport again = offload(card);
  ASSERT_TRUE(again.allGood());
  for (const OffloadDestination& d : again.destinations) {
    EXPECT_EQ(d.filesCopied, 1u);
    EXPECT_EQ(d.filesSkipped, sample.files.size());
    MhlHistory history;
    std::string error;
    ASSERT_TRUE(MhlHistory::load(d.folder, history, error)) << error;
    EXPECT_EQ(history.generations(), 2);
    EXPECT_EQ(history.latest("DCIM/100EOS5D/IMG_0003.CR2", "xxh64")->action,
              kd::MhlAction::Original);
    ASSERT_TRUE(d.manifest);
    EXPECT_NE(d.manifest->find("/ascmhl/0002_EOS_DIGITAL_"), std::string::npos);
  }

  // Read again from the device, every file is checked and recorded as verified.
  OffloadReport third = offload(card, "xxh64", true, true);
  ASSERT_TRUE(third.allGood());
  for (const OffloadDestination& d : third.destinations) {
    EXPECT_EQ(d.filesReverified, sample.files.size() + 1);
    MhlHistory history;
    std::string error;
    ASSERT_TRUE(MhlHistory::load(d.folder, history, error)) << error;
    EXPECT_EQ(history.generations(), 3);
    EXPECT_EQ(history.latest("DCIM/100EOS5D/MVI_0002.MOV", "xxh64")->action,
              kd::MhlAction::Verified);
  }
}

// A card read a second time that gives other bytes fails its file
// everywhere and keeps it out of the hash lists; what systems leave on a card
// and what --exclude names stay behind and are recorded as ignored; each
// destination gets a transfer report; two destinations on one drive are named.
TEST_F(Offload, ASecondReadOfTheCardExclusionsReportsAndOneDrive) {
  const SampleCard& sample = sampleCards()[1];
  const std::string card = makeCard(sample);
  for (const char* junk : {"System Volume Information/IndexerVolumeGuid", ".Trash-1000/files/x",
                           "$RECYCLE.BIN/desktop.ini", ".DS_Store", "DCIM/100EOS5D/take.tmp"})
    dir_.touch(std::string("cards/EOS_DIGITAL/") + junk, "junk");
  const std::string flaky = "DCIM/100EOS5D/MVI_0002.MOV";
  OffloadOptions options;
  options.card = card;
  options.destinations = {dir_ / "d1", dir_ / "d2"};
  options.sourceVerify = true;
  options.exclude = {"*.tmp"};
  std::map<std::string, int> started;
  OffloadProgress progress;
  progress.fileStarted = [&](const std::string& path, std::uint64_t) {
    if (path == flaky && ++started[path] == 2) {  // the reader goes bad
      std::string bytes = readFile(card + "/" + path);
      bytes[bytes.size() / 2] ^= 1;
      dir_.touch("cards/EOS_DIGITAL/" + path, bytes);
    }
  };
  const OffloadReport report = offloadCard(options, progress);
  EXPECT_FALSE(report.allGood());
  EXPECT_EQ(report.filesReadTwice, sample.files.size() - 1);
  EXPECT_EQ(report.excluded.size(), kSystemFiles.size() + 5);
  ASSERT_EQ(report.warnings.size(), 1u);
  EXPECT_NE(report.warnings[0].find("on the same drive"), std::string::npos);
  const auto flakyAt = std::find_if(report.cardFiles.begin(), report.cardFiles.end(),
                                    [&](const OffloadCardFile& f) { return f.path == flaky; });
  ASSERT_NE(flakyAt, report.cardFiles.end());
  for (const OffloadDestination& d : report.destinations) {
    ASSERT_EQ(d.failures.size(), 1u);
    EXPECT_EQ(d.failures[0].path, d.folder + "/" + flaky);
    EXPECT_NE(d.failures[0].reason.find("suspect"), std::string::npos);
    EXPECT_EQ(d.states[flakyAt - report.cardFiles.begin()], OffloadFileState::Failed);
    MhlHistory history;
    std::string error;
    ASSERT_TRUE(MhlHistory::load(d.folder, history, error)) << error;
    EXPECT_FALSE(history.latest(flaky, "xxh64"));
    EXPECT_TRUE(history.latest("DCIM/100EOS5D/IMG_0001.CR2", "xxh64"));
    const auto& patterns = history.generationList().back().ignorePatterns;
    for (const char* p : {"*.tmp", "System Volume Information", ".Trash-*", "offload-report_*"})
      EXPECT_NE(std::find(patterns.begin(), patterns.end(), p), patterns.end()) << p;
    ASSERT_TRUE(d.reportHtml && d.reportCsv);
    EXPECT_NE(readFile(*d.reportHtml).find("FAILED"), std::string::npos);
    const std::string rows = readFile(*d.reportCsv);
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'),
              static_cast<long>(sample.files.size() + 1));
    EXPECT_FALSE(fs::exists(d.folder + "/DCIM/100EOS5D/take.tmp"));
  }
}

// What is already at a destination and is not the card's file is never
// replaced, and a temporary copy left by a stopped run is taken over.
TEST_F(Offload, WhatIsInTheWayIsLeftAsItIs) {
  const SampleCard& sample = sampleCards()[0];
  const std::string card = makeCard(sample);
  const std::string other = dir_.touch("d1/A001C001/CONTENTS/LASTCLIP.TXT", "not the card's");
  const std::string sameSize = dir_.touch("d2/A001C001/CONTENTS/LASTCLIP.TXT", "0123456789");
  const std::string stale =
      dir_.touch("d1/A001C001/CONTENTS/CLIPS001/C0001/.C0001.MXF.kdpart", "x");
  const OffloadReport report = offload(card);
  EXPECT_FALSE(report.allGood());
  ASSERT_EQ(report.destinations.size(), 2u);
  for (const OffloadDestination& d : report.destinations) {
    ASSERT_EQ(d.failures.size(), 1u);
    EXPECT_EQ(d.failures[0].path, d.folder + "/CONTENTS/LASTCLIP.TXT");
    EXPECT_EQ(d.filesCopied, 2u);
  }
  EXPECT_EQ(report.destinations[1].failures[0].reason,
            "already there and differs from the card's file; left as it is");
  EXPECT_TRUE(report.destinations[1].failures[0].sourceDigest);
  EXPECT_EQ(readFile(other), "not the card's");
  EXPECT_EQ(readFile(sameSize), "0123456789");
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_EQ(readFile(dir_ / "d1/A001C001/CONTENTS/CLIPS001/C0001/C0001.MXF"),
            readFile(card + "/CONTENTS/CLIPS001/C0001/C0001.MXF"));
}

TEST_F(Offload, RefusalsTouchNothing) {
  const std::string card = makeCard(sampleCards()[2]);
  dir_.mkdir("cards/DJI_0001/inside");
  const std::string d1 = dir_ / "d1";
  const struct {
    const char* what;
    std::vector<std::string> destinations;
    std::string hash;
    bool mhl;
    std::string name;
    const char* says;
  } cases[] = {
      {"unknown hash", {d1}, "crc32", true, "", "Unknown hash"},
      {"hash the list cannot hold", {d1}, "sha256", true, "", "--no-mhl"},
      {"unknown hash in a list", {d1}, "xxh64,crc32", true, "", "Unknown hash \"crc32\""},
      {"hash listed twice", {d1}, "xxh64,md5,xxh64", true, "", "xxh64 is listed twice"},
      {"list with a hash the list cannot hold", {d1}, "xxh64,sha256", true, "", "--no-mhl"},
      {"no destination", {}, "xxh64", true, "", "At least one destination"},
      {"missing destination", {dir_ / "nowhere"}, "xxh64", true, "", "is not an existing folder"},
      {"destination in the card", {card + "/inside"}, "xxh64", true, "", "overlap"},
      {"card in the destination", {dir_ / "cards"}, "xxh64", true, "", "overlap"},
      {"destination twice", {d1, d1 + "/."}, "xxh64", true, "", "named twice"},
      {"name with a slash", {d1}, "xxh64", true, "a/b", "cannot be a folder's name"},
      {"card folder a link at the destination", {d1}, "xxh64", true, "linked", "is a link"},
  };
  ASSERT_EQ(::symlink(dir_.mkdir("elsewhere").c_str(), (d1 + "/linked").c_str()), 0);
  const std::vector<std::string> before = listing(dir_.path());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    OffloadOptions options;
    options.card = card;
    options.destinations = c.destinations;
    options.hash = c.hash;
    options.mhl = c.mhl;
    options.name = c.name;
    const OffloadReport report = offloadCard(options);
    EXPECT_FALSE(report.allGood());
    EXPECT_NE(report.error.find(c.says), std::string::npos) << report.error;
    for (const OffloadDestination& d : report.destinations) EXPECT_EQ(d.filesCopied, 0u);
    // Only the destination folders themselves may have been made.
    for (const std::string& path : listing(dir_.path()))
      if (std::find(before.begin(), before.end(), path) == before.end()) {
        EXPECT_EQ(fs::path(path).filename(), "DJI_0001") << path;
      }
  }
}

// A card with links (one a loop, one to a file outside it) copies neither.
TEST_F(Offload, LinksOnTheCardAreNotFollowed) {
  const std::string card = makeCard(sampleCards()[2]);
  ASSERT_EQ(::symlink("..", (card + "/loop").c_str()), 0);
  ASSERT_EQ(::symlink("/etc/passwd", (card + "/passwd").c_str()), 0);
  const OffloadReport report = offload(card);
  ASSERT_TRUE(report.allGood()) << report.error;
  int links = 0;
  for (const OffloadExclusion& e : report.excluded) links += e.reason == "a link, not followed";
  EXPECT_EQ(links, 2);
  EXPECT_FALSE(fs::exists(fs::symlink_status(dir_ / "d1/DJI_0001/passwd")));
}

// A link planted in a destination's tree is not written through, and a card
// file named like a temporary copy survives the copy of its neighbour.
TEST_F(Offload, DestinationLinksAndTemporaryNamesOnTheCard) {
  const std::string card = makeCard(sampleCards()[2]);
  const std::string folder = "0001_0042_20240315_A/";
  const std::string lookalike =
      dir_.touch("cards/DJI_0001/" + folder + ".DJI_0042.mov.kdpart", "mine");
  const std::string elsewhere = dir_.mkdir("elsewhere");
  dir_.mkdir("d2/DJI_0001");
  ASSERT_EQ(::symlink(elsewhere.c_str(), (dir_ / ("d2/DJI_0001/" + folder.substr(0, 20))).c_str()),
            0);
  const OffloadReport report = offload(card);
  EXPECT_TRUE(report.destinations[0].good());
  EXPECT_EQ(readFile(dir_ / ("d1/DJI_0001/" + folder + ".DJI_0042.mov.kdpart")), "mine");
  EXPECT_EQ(readFile(dir_ / ("d1/DJI_0001/" + folder + "DJI_0042.mov")),
            readFile(card + "/" + folder + "DJI_0042.mov"));
  ASSERT_EQ(report.destinations[1].failures.size(), 2u);
  EXPECT_NE(report.destinations[1].failures[0].reason.find("a link or a file is where"),
            std::string::npos);
  EXPECT_TRUE(fs::is_empty(elsewhere));
}

// A folder of a destination moved aside or swapped for a link during the run
// (after the run has written files into it) is never written through,
// and no copy in it counts as verified.
TEST_F(Offload, AFolderReplacedDuringTheRunIsNotWrittenThrough) {
  const std::string card = dir_.mkdir("cards/A001");
  for (int i = 1; i <= 4; ++i)
    dir_.touch("cards/A001/CLIP/C000" + std::to_string(i) + ".MXF", varyingBytes(70000, i));
  dir_.mkdir("d1");
  const std::string elsewhere = dir_.mkdir("elsewhere");
  OffloadOptions options;
  options.card = card;
  options.destinations = {dir_ / "d1"};
  OffloadProgress progress;
  progress.fileStarted = [&](const std::string& path, std::uint64_t) {
    if (path != "CLIP/C0004.MXF") return;
    ASSERT_EQ(::rename((dir_ / "d1/A001/CLIP").c_str(), (dir_ / "d1/A001/moved").c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.c_str(), (dir_ / "d1/A001/CLIP").c_str()), 0);
  };
  const OffloadReport report = offloadCard(options, progress);
  ASSERT_EQ(report.destinations.size(), 1u);
  const OffloadDestination& d = report.destinations[0];
  EXPECT_FALSE(report.allGood());
  // The files before the fourth may still be on their way when it starts:
  // they fail too then. Every file is either copied before the swap or failed.
  EXPECT_GE(d.filesCopied, 1u);
  ASSERT_EQ(d.filesCopied + d.failures.size(), 4u);
  EXPECT_NE(d.failures[0].reason.find("the folder CLIP was moved or replaced"), std::string::npos)
      << d.failures[0].reason;
  EXPECT_TRUE(fs::is_empty(elsewhere));
  std::vector<std::string> kept;
  for (std::size_t i = 1; i <= d.filesCopied; ++i)
    kept.push_back(dir_ / ("d1/A001/moved/C000" + std::to_string(i) + ".MXF"));
  EXPECT_EQ(listing(dir_ / "d1/A001/moved"), kept);
}

// A damaged hash list at a destination is left byte for byte; the files are
// still copied there, and the run says it could not extend the list.
TEST_F(Offload, ADamagedHashListIsKeptAndReported) {
  const std::string card = makeCard(sampleCards()[2]);
  const std::string chain = dir_.touch("d1/DJI_0001/ascmhl/ascmhl_chain.xml", "<ascmhldirectory");
  const OffloadReport report = offload(card);
  EXPECT_FALSE(report.allGood());
  EXPECT_EQ(readFile(chain), "<ascmhldirectory");
  EXPECT_EQ(report.destinations[0].filesCopied, 1u);
  EXPECT_FALSE(report.destinations[0].manifest);
  ASSERT_EQ(report.destinations[0].failures.size(), 1u);
  EXPECT_EQ(report.destinations[0].failures[0].path, dir_ / "d1/DJI_0001/ascmhl");
  EXPECT_TRUE(report.destinations[1].good());
}

// Through kd: a byte changed in one copy after the offload is found by
// --reverify, named with both digests, and the exit status says so; the
// JSON summary tells the same.
TEST_F(Offload, TheToolFindsAChangedByteByReadingAgain) {
  const std::string card = makeCard(sampleCards()[1]);
  const std::string args = "offload '" + card + "' '" + (dir_ / "d1") + "' '" + (dir_ / "d2") + "'";
  int status = -1;
  const std::string first = kd(args, status);
  EXPECT_EQ(status, 0) << first;
  EXPECT_NE(first.find("Result:      every file of every destination verified"), std::string::npos);
  EXPECT_NE(first.find("Manifest:  " + (dir_ / "d1/EOS_DIGITAL/ascmhl/0001_EOS_DIGITAL_")),
            std::string::npos)
      << first;

  const std::string clip = dir_ / "d2/EOS_DIGITAL/DCIM/100EOS5D/MVI_0002.MOV";
  {
    std::fstream f(clip, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(4242);
    f.put('\x5a');
  }
  const std::string out = kd(args + " --reverify", status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find("Failed:    " + clip + ": read again from the device, it differs"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("card        "), std::string::npos);
  EXPECT_NE(out.find("destination "), std::string::npos);

  const std::string json = kd(args + " --reverify --json", status);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(json.rfind("{\"card\": ", 0), 0u) << json;
  EXPECT_NE(json.find("\"path\": \"" + clip + "\""), std::string::npos);
  EXPECT_NE(json.find("\"destinationDigest\": \""), std::string::npos);

  kd("offload --hash sha256 '" + card + "' '" + (dir_ / "d1") + "'", status);
  EXPECT_EQ(status, 2);
}

// Through kd with I/O faults: a card that returns a read error stops the run
// naming its file; a destination that reads back other bytes, or whose flush
// fails, loses that file while the other destination completes. Nothing that
// failed gets its real name.
TEST_F(Offload, FaultsFailTheRightFileAndNothingFailedIsNamed) {
  const SampleCard& sample = sampleCards()[1];
  const std::string clip = "DCIM/100EOS5D/MVI_0002.MOV", photo = "DCIM/100EOS5D/IMG_0001.CR2";
  const std::string part = "DCIM/100EOS5D/.MVI_0002.MOV.kdpart";
  const struct {
    const char* what;
    std::string call, kind, at;  // `at`: "card", "d1" or "d2" and the file
    std::string file;
    std::size_t after;     // bytes before the fault
    std::string says;      // in the summary
    const char* failedIn;  // the destination that lost the file; null: the card
  } cases[] = {
      {"card read error", "read", "eio", "card", clip, 1u << 20, "from the card failed", nullptr},
      {"read-back differs", "pread", "flip", "d2", part, 1u << 20, "what was read back differs",
       "d2"},
      {"flush fails", "fdatasync", "eio", "d1", part, 0, "flushing to the device", "d1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    removeTree(dir_ / "cards");
    removeTree(dir_ / "d1");
    removeTree(dir_ / "d2");
    const std::string card = makeCard(sample);
    const std::string faulty =
        c.at == "card" ? card + "/" + c.file : dir_ / (c.at + "/EOS_DIGITAL/" + c.file);
    std::string out, err;
    const int status = runWithFault(dir_, Fault{c.call, c.kind, faulty, c.after},
                                    std::string(KD_TOOL_PATH) + " offload '" + card + "' '" +
                                        (dir_ / "d1") + "' '" + (dir_ / "d2") + "'",
                                    out, err);
    EXPECT_EQ(status, 1) << out << err;
    EXPECT_NE(out.find(c.says), std::string::npos) << out;
    for (const char* d : {"d1", "d2"}) {
      const std::string folder = dir_ / (std::string(d) + "/EOS_DIGITAL/");
      EXPECT_EQ(readFile(folder + photo), readFile(card + "/" + photo)) << d;
      const bool lost = !c.failedIn || std::string(c.failedIn) == d;
      EXPECT_EQ(fs::exists(folder + clip), !lost) << d;
      if (lost && c.failedIn) {
        EXPECT_NE(out.find("Failed:    " + folder + clip), std::string::npos) << out;
        EXPECT_FALSE(fs::exists(folder + part)) << d;
      }
    }
    if (!c.failedIn) {
      EXPECT_NE(err.find("Reading " + card + "/" + clip + " from the card failed"),
                std::string::npos)
          << err;
    }
  }
}

}  // namespace
}  // namespace kd::test
