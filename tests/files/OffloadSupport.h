// Sample cards for the offload tests, and the checks of what an offload left
// in a destination: the files, their dates, no temporary copies, and hash
// lists valid against the standard's schemas.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace kd::test {

struct SampleCard {
  const char* name;
  std::vector<std::pair<std::string, std::size_t>> files;  // path, size
};

// Cards of several layouts; every one also gets the system's housekeeping
// (see kSystemFiles), which an offload leaves out.
inline const std::vector<SampleCard>& sampleCards() {
  static const std::vector<SampleCard> cards = {
      {"A001C001",
       {{"CONTENTS/CLIPS001/C0001/C0001.MXF", 300000},
        {"CONTENTS/CLIPS001/C0001/C0001M01.XML", 900},
        {"CONTENTS/LASTCLIP.TXT", 10}}},
      {"EOS_DIGITAL",
       {{"DCIM/100EOS5D/IMG_0001.CR2", 250000},
        {"DCIM/100EOS5D/MVI_0002.MOV", (5u << 20) + 3},
        {"DCIM/100EOS5D/EMPTY.TXT", 0},
        {".hidden_settings", 5}}},
      {"DJI_0001", {{"0001_0042_20240315_A/DJI_0042.mov", 1u << 20}}},
      // Large and small files in turn in one folder: each small file's copy
      // ends before the large one's before it.
      {"A002",
       {{"CLIPS/A002C001.MOV", 3u << 20},
        {"CLIPS/A002C001.XML", 900},
        {"CLIPS/A002C002.MOV", (2u << 20) + 5},
        {"CLIPS/A002C002.XML", 10}}},
  };
  return cards;
}

inline const std::vector<std::string> kSystemFiles = {
    ".Trashes/501/deleted.mov", ".Spotlight-V100/Store-V2/store.db", ".fseventsd/0000000001",
    ".TemporaryItems/folders.501/x", "._notes"};

// Writes the card's files below `root`, each dated a day apart in the past.
inline void writeCard(const std::string& root, const SampleCard& card) {
  unsigned seed = 1;
  std::vector<std::string> all;
  for (const auto& [path, size] : card.files) all.push_back(path);
  for (const std::string& junk : kSystemFiles) all.push_back(junk);
  for (const std::string& path : all) {
    const std::string full = root + "/" + path;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::size_t size = 7;
    for (const auto& [p, s] : card.files)
      if (p == path) size = s;
    FILE* f = std::fopen(full.c_str(), "wb");
    ASSERT_TRUE(f) << full;
    const std::string bytes = varyingBytes(size, seed++);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    // Both times: exFAT through FUSE ignores a modification time sent alone.
    const struct timespec date = {1700000000 + 86400 * seed, 5000};
    const struct timespec times[2] = {date, date};
    ::utimensat(AT_FDCWD, full.c_str(), times, 0);
  }
}

// Every file of the card is in `folder` with its bytes and date; nothing of
// the system's housekeeping and no temporary copy is.
inline void expectOffloaded(const std::string& card, const std::string& folder,
                            const SampleCard& sample) {
  for (const auto& [path, size] : sample.files) {
    SCOPED_TRACE(folder + "/" + path);
    struct stat a {
    }, b{};
    ASSERT_EQ(::stat((card + "/" + path).c_str(), &a), 0);
    ASSERT_EQ(::stat((folder + "/" + path).c_str(), &b), 0);
    EXPECT_EQ(readFile(folder + "/" + path), readFile(card + "/" + path));
    EXPECT_LT(a.st_mtim.tv_sec, 1750000000) << "the card's own date was not set";
    EXPECT_EQ(b.st_mtim.tv_sec, a.st_mtim.tv_sec);
  }
  for (const std::string& junk : kSystemFiles) {
    const std::string top = junk.substr(0, junk.find('/'));
    EXPECT_FALSE(std::filesystem::exists(folder + "/" + top)) << top;
  }
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
    EXPECT_NE(entry.path().extension(), ".kdpart") << "temporary copy left: " << entry.path();
}

// xmllint's verdict on every file of a hash-list folder against the
// standard's schemas: "" when all are valid. Skips the calling test when
// xmllint is missing.
inline std::string historyProblems(const std::string& ascmhl) {
  const std::string data = KD_TEST_DATA_DIR "/ascmhl";
  std::string problems;
  for (const auto& entry : std::filesystem::directory_iterator(ascmhl)) {
    const bool chain = entry.path().filename() == "ascmhl_chain.xml";
    const std::string command = "/usr/bin/xmllint --noout --nonet --schema '" + data +
                                (chain ? "/ASCMHLDirectory.xsd" : "/ASCMHL.xsd") + "' '" +
                                entry.path().string() + "' 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string output;
    char buf[1024];
    while (pipe && std::fgets(buf, sizeof buf, pipe)) output += buf;
    if (!pipe || ::pclose(pipe) != 0) problems += output.empty() ? "xmllint failed\n" : output;
  }
  return problems;
}

}  // namespace kd::test
