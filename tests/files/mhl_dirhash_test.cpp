// Directory hashes: computed for small trees in every format and compared
// with what the ASC MHL reference tool (vendored under tests/third_party)
// computes for the same folders on disk; a folder above a file of unknown
// content gets none; written, checked against the schema and read back.
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

#include "FilesFixture.h"
#include "OffloadSupport.h"
#include "files/KdFileManager.h"
#include "files/mhl/MhlDirectoryHash.h"
#include "files/mhl/MhlHistory.h"
#include "support/Process.h"

namespace kd::test {
namespace {

const std::string kReference = KD_TEST_DATA_DIR "/../third_party/ascmhl-ref/run";

using Hashes =
    std::map<std::string, std::pair<std::string, std::string>>;  // path: content, structure

// The reference tool's hashes of `folder` in `format` ("" the root), from
// the lines "calculated directory hash for PATH  FORMAT: C (content), S
// (structure)" and "calculated root hash  FORMAT: ...".
std::optional<Hashes> referenceHashes(const TempDir& dir, const std::string& folder,
                                      const std::string& format) {
  const std::string out = dir / "ref.out";
  if (run({"/bin/sh", kReference, "debug", "verify", "-dh", "-co", "-h", format, folder},
          {.out = out, .err = out}) != 0)
    return std::nullopt;
  Hashes hashes;
  const std::string text = readFile(out);
  for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    const std::string forFolder = "calculated directory hash for ",
                      forRoot = "calculated root hash";
    const std::string marker = "  " + format + ": ";
    const std::size_t at = line.rfind(marker), comma = line.find(" (content), ");
    if (at == std::string::npos || comma == std::string::npos) continue;
    std::string path;
    if (const std::size_t f = line.find(forFolder); f != std::string::npos)
      path = line.substr(f + forFolder.size(), at - f - forFolder.size());
    else if (line.find(forRoot) == std::string::npos)
      continue;
    const std::string content = line.substr(at + marker.size(), comma - at - marker.size());
    const std::size_t close = line.find(" (structure)", comma);
    hashes[path] = {content, line.substr(comma + 12, close - comma - 12)};
  }
  return hashes;
}

std::string digestOf(const std::string& format, const std::string& bytes) {
  if (format == "c4") return mhlC4Id(bytes);
  auto digester = KdFileManager::copyDigestNamed(format)->make();
  digester->update(bytes.data(), bytes.size());
  return digester->text().value_or("");
}

class MhlDirectoryHashes : public FilesTest {};

TEST_F(MhlDirectoryHashes, EqualTheReferenceToolsForEveryFormat) {
  if (run({"/bin/sh", kReference, "--version"}, {.out = "/dev/null", .err = "/dev/null"}) != 0)
    GTEST_SKIP() << "the reference tool does not run: Debian's python3-click, python3-lxml, "
                    "python3-pathspec, python3-xxhash, python3-dateutil are needed";
  // Each tree: files with their bytes; a name ending in '/' an empty folder.
  struct Case {
    const char* what;
    std::vector<std::pair<std::string, std::string>> tree;
  };
  const std::vector<Case> cases = {
      {"an empty folder", {}},
      {"files only", {{"b.mov", "abc"}, {"a.txt", ""}, {"C.XML", "xyz"}}},
      {"nested, empty folders, names beyond ASCII and XML's own characters",
       {{"Clips/A001.mov", std::string(70000, 'v')},
        {"Clips/Sub/x", "1"},
        {"Clips/Empty/", ""},
        {"Empty/", ""},
        {"Caf\xC3\xA9/\xC3\xBC.txt", "\xC3\xA9"},
        {"a b/&<>'.txt", "amp"},
        {"top", "t"}}},
      {"the same digest several times", {{"a", "same"}, {"d/a", "same"}, {"d/b", "same"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string tree = "tree" + std::to_string(&c - cases.data());
    const std::string root = dir_.mkdir(tree);
    std::vector<MhlFolder> folders = {{"", std::nullopt}};
    std::vector<std::pair<std::string, std::string>> files;
    for (const auto& [path, bytes] : c.tree) {
      if (path.ends_with('/')) {
        dir_.mkdir(tree + "/" + path);
        folders.push_back({path.substr(0, path.size() - 1), std::nullopt});
        continue;
      }
      std::filesystem::create_directories(std::filesystem::path(root + "/" + path).parent_path());
      dir_.touch(tree + "/" + path, bytes);
      files.emplace_back(path, bytes);
    }
    for (const std::string format : {"xxh64", "xxh3", "xxh128", "md5", "sha1", "c4"}) {
      SCOPED_TRACE(format);
      std::vector<MhlHash> digests;
      for (const auto& [path, bytes] : files)
        digests.push_back({path, bytes.size(), std::nullopt, format, digestOf(format, bytes),
                           kd::MhlAction::Original, std::nullopt});
      const kd::MhlDirectoryHashes ours = mhlDirectoryHashes(digests, folders, format);
      Hashes computed;
      ASSERT_EQ(ours.root.size(), 1u);
      computed[""] = {ours.root[0].content, ours.root[0].structure};
      for (const MhlDirectoryHash& d : ours.directories) {
        ASSERT_EQ(d.digests.size(), 1u);
        EXPECT_EQ(d.digests[0].format, format);
        computed[d.path] = {d.digests[0].content, d.digests[0].structure};
      }
      const std::optional<Hashes> reference = referenceHashes(dir_, root, format);
      ASSERT_TRUE(reference) << readFile(dir_ / "ref.out");
      EXPECT_EQ(computed, *reference);
    }
  }
}

// A file whose content is not known (a copy that failed) leaves its folders,
// and the root, without hashes: a hash there would vouch for what was never
// checked.
TEST_F(MhlDirectoryHashes, NoneAboveAFileOfUnknownContent) {
  const std::string d = std::string(16, '0');
  const std::vector<MhlHash> files = {
      {"A/B/known", 1, std::nullopt, "xxh64", d, kd::MhlAction::Original, std::nullopt},
      {"A/B/failed", 1, std::nullopt, "xxh64", "", kd::MhlAction::None, std::nullopt},
      {"A/C/md5only", 1, std::nullopt, "md5", std::string(32, '0'), kd::MhlAction::Original,
       std::nullopt},
      {"D/known", 1, std::nullopt, "xxh64", d, kd::MhlAction::Original, std::nullopt},
  };
  const kd::MhlDirectoryHashes hashes = mhlDirectoryHashes(files, {{"E", std::nullopt}}, "xxh64");
  std::vector<std::string> folders;
  for (const MhlDirectoryHash& h : hashes.directories) folders.push_back(h.path);
  EXPECT_EQ(folders, (std::vector<std::string>{"D", "E"}));
  EXPECT_TRUE(hashes.root.empty());
  EXPECT_TRUE(mhlDirectoryHashes(files, {}, "sha256").directories.empty());
}

// A generation's files: as this run found them, else as last recorded good.
TEST_F(MhlDirectoryHashes, OfAGenerationComeFromItsEntriesAndTheHistory) {
  const std::string tracked = dir_.mkdir("CARD");
  const std::string d = std::string(16, '1');
  auto hash = [&](std::string path, kd::MhlAction action) {
    return MhlHash{std::move(path), 1, std::nullopt, "xxh64", d, std::move(action), std::nullopt};
  };
  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
  ASSERT_TRUE(history.addGeneration(
      {std::chrono::system_clock::now(), "h", "kd", "1"}, "CARD", {},
      {hash("A/x", kd::MhlAction::Original), hash("A/y", kd::MhlAction::Failed)}, error))
      << error;
  const std::vector<std::string> paths = {"A/x", "A/y", "B/z"};
  struct Case {
    const char* what;
    std::vector<MhlHash> entries;
    std::vector<std::string> hashed;  // folders with hashes; "" the root
  };
  const std::vector<Case> cases = {
      {"recorded as failed, not found again", {hash("B/z", kd::MhlAction::Original)}, {"B"}},
      {"found again",
       {hash("A/y", kd::MhlAction::Verified), hash("B/z", kd::MhlAction::Original)},
       {"A", "B", ""}},
      {"not found at all", {hash("A/y", kd::MhlAction::Verified)}, {"A"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const kd::MhlDirectoryHashes hashes =
        mhlGenerationDirectoryHashes(paths, c.entries, history, {}, "xxh64");
    std::vector<std::string> hashed;
    for (const MhlDirectoryHash& h : hashes.directories) hashed.push_back(h.path);
    if (!hashes.root.empty()) hashed.push_back("");
    EXPECT_EQ(hashed, c.hashed);
  }
}

TEST_F(MhlDirectoryHashes, AreWrittenValidAndReadBack) {
  MhlManifest manifest;
  manifest.creator = {std::chrono::system_clock::time_point(std::chrono::seconds(1700000000)), "h",
                      "kd", "1"};
  manifest.process = "transfer";
  manifest.hashes = {{"A/x", 1, std::nullopt, "xxh64", std::string(16, 'a'),
                      kd::MhlAction::Original, std::nullopt}};
  manifest.directoryHashes.root = {
      {"md5", std::string(32, 'b'), std::string(32, 'c')},
      {"c4", mhlC4Id("r"), mhlC4Id("s")}};  // written in the schema's order: c4 first
  manifest.directoryHashes.directories = {
      {"A", manifest.creator.creationDate, {{"xxh64", std::string(16, 'd'), std::string(16, 'e')}}},
      {"Empty & <odd>", std::nullopt, {}}};
  std::string error;
  const std::optional<std::string> written = writeMhlManifest(manifest, error);
  ASSERT_TRUE(written) << error;
  MhlManifest read;
  ASSERT_TRUE(parseMhlManifest(*written, read, error)) << error;
  std::swap(manifest.directoryHashes.root[0], manifest.directoryHashes.root[1]);
  EXPECT_EQ(read.directoryHashes, manifest.directoryHashes);
  EXPECT_EQ(read.hashes, manifest.hashes);
  const std::string ascmhl = dir_.mkdir("ascmhl");
  dir_.touch("ascmhl/0001_X_2023-11-14_221320Z.mhl", *written);
  if (::access("/usr/bin/xmllint", X_OK) != 0) GTEST_SKIP() << "xmllint is missing";
  EXPECT_EQ(historyProblems(ascmhl), "");

  // What another writer may put there and is not relied on: skipped.
  const std::string other = [&] {
    std::string doc = *written;
    const std::string from = "<path>Empty &amp; &lt;odd&gt;</path>";
    doc.replace(doc.find(from), from.size(), "<path>../up</path>");
    const std::string digest = "<xxh64>" + std::string(16, 'd') + "</xxh64>";
    doc.replace(doc.find(digest), digest.size(), "<xxh64>not hex</xxh64>");
    return doc;
  }();
  ASSERT_TRUE(parseMhlManifest(other, read, error)) << error;
  ASSERT_EQ(read.directoryHashes.directories.size(), 1u);
  EXPECT_EQ(read.directoryHashes.directories[0].digests,
            (std::vector<MhlDirectoryDigest>{{"xxh64", "", std::string(16, 'e')}}));
}

}  // namespace
}  // namespace kd::test
