// The ASC MHL history: C4 IDs, manifests and chains written, validated with
// xmllint against the standard's schemas, read back across generations;
// damaged, tampered and linked histories refused with nothing changed; hostile
// documents refused; the standard's examples read.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files/mhl/MhlHistory.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using kd::MhlChainEntry;
using kd::MhlCreator;
using kd::MhlHash;
using kd::MhlHistory;
using kd::MhlManifest;
using kd::test::readFile;
using kd::test::TempDir;
using Clock = std::chrono::system_clock;

const std::string kData = KD_TEST_DATA_DIR "/ascmhl";

Clock::time_point at(long long seconds) {
  return Clock::time_point(std::chrono::seconds(seconds));
}

MhlCreator creator(long long seconds) {
  return MhlCreator{at(seconds), "wrangler.local", "kd", "1.0 \"beta\""};
}

MhlHash hashOf(std::string path, std::uint64_t size, std::string format, std::string digest,
               long long when = 1700000000) {
  return MhlHash{
      std::move(path),         size,    at(when - 3600), std::move(format), std::move(digest),
      kd::MhlAction::Original, at(when)};
}

void put(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

bool haveXmllint() {
  return ::access("/usr/bin/xmllint", X_OK) == 0;
}

// xmllint's verdict on `file` against `schema`: "" when valid, else its output.
std::string schemaProblems(const std::string& schema, const std::string& file) {
  const std::string command =
      "/usr/bin/xmllint --noout --nonet --schema '" + schema + "' '" + file + "' 2>&1";
  std::string output;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return "cannot run xmllint";
  char buf[4096];
  while (std::size_t n = std::fread(buf, 1, sizeof buf, pipe)) output.append(buf, n);
  const int status = ::pclose(pipe);
  return status == 0 ? "" : output.empty() ? "xmllint failed" : output;
}

void expectValid(const std::string& history) {
  for (const auto& entry : fs::directory_iterator(history)) {
    const std::string path = entry.path().string();
    const bool chain = entry.path().filename() == "ascmhl_chain.xml";
    EXPECT_EQ(schemaProblems(kData + (chain ? "/ASCMHLDirectory.xsd" : "/ASCMHL.xsd"), path), "")
        << path;
  }
}

// Every name below `root` (links not followed) with its contents or link target.
std::map<std::string, std::string> snapshot(const std::string& root) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    const std::string rel = fs::relative(e.path(), root).string();
    if (e.is_symlink())
      out[rel] = "link to " + fs::read_symlink(e.path()).string();
    else if (e.is_regular_file())
      out[rel] = readFile(e.path().string());
    else
      out[rel] = "folder";
  }
  return out;
}

const std::string kXxh = "0ea03b369a463d9d";
const std::string kMd5 = "d41d8cd98f00b204e9800998ecf8427e";

// A tracked folder with generation 1 written: clips A and B.
std::string trackedWithOneGeneration(const TempDir& dir) {
  const std::string tracked = dir.mkdir("dest/CARD");
  MhlHistory history;
  std::string error;
  EXPECT_TRUE(MhlHistory::load(tracked, history, error)) << error;
  EXPECT_TRUE(history.addGeneration(
      creator(1700000000), "CARD", {".DS_Store", "ascmhl"},
      {hashOf("Clips/A.mov", 5, "xxh64", kXxh), hashOf("Clips/A.mov", 5, "md5", kMd5),
       hashOf("Clips/B.mov", 7, "xxh64", "7680e5f98f4a80fd")},
      error))
      << error;
  return tracked;
}

TEST(AscMhl, C4IdsOfKnownInputs) {
  // The empty string's C4 ID is the standard's published example. The second
  // was derived independently of this code:
  //   python3 -c 'import hashlib; A="123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz"
  //   n=int.from_bytes(hashlib.sha512(b"abc").digest(),"big"); s=""
  //   while n: n,r=divmod(n,58); s=A[r]+s
  //   print("c4"+s.rjust(88,"1"))'
  EXPECT_EQ(
      kd::mhlC4Id(""),
      "c459dsjfscH38cYeXXYogktxf4Cd9ibshE3BHUo6a58hBXmRQdZrAkZzsWcbWtDg5oQstpDuni4Hirj75GEmTc1sFT");
  EXPECT_EQ(
      kd::mhlC4Id("abc"),
      "c45S4rnaTNWonxss1u8LzsaJdEph1AJhWUF4sh2waXKMsutyfAxg4ybUeuXVWS9HdNcEypmeXn8FZGonD4w1rj9DZp");
  // And the standard's example manifest against the C4 ID its chain records.
  EXPECT_EQ(
      kd::mhlC4Id(readFile(kData + "/examples/0002_A002R2EC_2020-01-17_143000Z.mhl")),
      "c45kfAU9bNHnT32pMzSdio6Qb7us3xkd65ff8uAvJcgdkpoQZUKoPFckwtVHozxgftZj4uUoXrRiAiwSqNGAxLUAKM");
}

TEST(AscMhl, TheFormatsTheStandardDefines) {
  for (const char* format : {"xxh64", "xxh3", "xxh128", "md5", "sha1", "c4"})
    EXPECT_TRUE(kd::isMhlHashFormat(format)) << format;
  for (const char* format : {"sha256", "sha512", "XXH64", "", "xxh"})
    EXPECT_FALSE(kd::isMhlHashFormat(format)) << format;
}

TEST(AscMhl, GenerationsAreWrittenValidAndReadBack) {
  if (!haveXmllint()) GTEST_SKIP() << "xmllint is missing (Debian's libxml2-utils)";
  TempDir dir;
  const std::string tracked = trackedWithOneGeneration(dir);
  const std::string folder = tracked + "/ascmhl";
  expectValid(folder);

  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
  ASSERT_EQ(history.generations(), 1);
  EXPECT_EQ(history.chain()[0].file, "0001_CARD_2023-11-14_221320Z.mhl");
  auto a = history.latest("Clips/A.mov", "md5");
  ASSERT_TRUE(a);
  EXPECT_EQ(*a, hashOf("Clips/A.mov", 5, "md5", kMd5));
  EXPECT_FALSE(history.latest("Clips/A.mov", "sha1"));
  EXPECT_FALSE(history.latest("Clips/C.mov", "xxh64"));

  // Generation 2: B verified again with a new digest, C added, A not listed.
  auto second =
      history.addGeneration(creator(1700086400), "CARD", {},
                            {hashOf("Clips/B.mov", 8, "xxh64", "AAAAAAAAAAAAAAAA", 1700086400),
                             hashOf("Clips/C.mov", 0, "c4", kd::mhlC4Id(""), 1700086400)},
                            error);
  ASSERT_TRUE(second) << error;
  EXPECT_EQ(*second, folder + "/0002_CARD_2023-11-15_221320Z.mhl");
  expectValid(folder);

  MhlHistory again;
  ASSERT_TRUE(MhlHistory::load(tracked, again, error)) << error;
  ASSERT_EQ(again.generations(), 2);
  for (const MhlChainEntry& entry : again.chain()) {
    EXPECT_EQ(entry.sequence, &entry - again.chain().data() + 1);
    EXPECT_EQ(entry.c4, kd::mhlC4Id(readFile(folder + "/" + entry.file))) << entry.file;
  }
  EXPECT_EQ(again.latest("Clips/A.mov", "xxh64")->digest, kXxh);  // from generation 1
  EXPECT_EQ(again.latest("Clips/B.mov", "xxh64")->digest, "aaaaaaaaaaaaaaaa");
  EXPECT_EQ(again.latest("Clips/B.mov", "xxh64")->size, 8u);
  EXPECT_EQ(again.latest("Clips/C.mov", "c4")->digest, kd::mhlC4Id(""));
  // The object that wrote generation 2 knows what a fresh load knows.
  EXPECT_EQ(history.chain(), again.chain());
  EXPECT_EQ(history.latest("Clips/B.mov", "xxh64"), again.latest("Clips/B.mov", "xxh64"));

  struct stat st {};
  ASSERT_EQ(::lstat(folder.c_str(), &st), 0);
  const mode_t mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(st.st_mode & 07777, 0777 & ~mask);
  ASSERT_EQ(::lstat((folder + "/ascmhl_chain.xml").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0666 & ~mask);
  // Nothing but the manifests and the chain (no temporary file left).
  EXPECT_EQ(snapshot(folder).size(), 3u);
}

TEST(AscMhl, PathsAndNamesAreEscapedAndTextXmlCannotHoldIsRefused) {
  if (!haveXmllint()) GTEST_SKIP() << "xmllint is missing (Debian's libxml2-utils)";
  TempDir dir;
  const std::string tracked = dir.mkdir("CARD");
  const std::vector<std::string> paths = {
      "A&B/<clip>.mov", "quotes \"'\".mov", "tab\there.mov",
      "new\nline.mov",  "cr\rreturn.mov",   "caf\xC3\xA9/\xE6\x98\xA0\xE5\x83\x8F.mov",
      " spaced .mov",   "]]>.mov"};
  std::vector<MhlHash> hashes;
  for (const std::string& p : paths) hashes.push_back(hashOf(p, 1, "xxh64", kXxh));
  MhlHistory history;
  std::string error;
  ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
  ASSERT_TRUE(
      history.addGeneration(creator(1700000000), "A&B <card>", {"*.tmp & <x>"}, hashes, error))
      << error;
  expectValid(tracked + "/ascmhl");
  MhlHistory again;
  ASSERT_TRUE(MhlHistory::load(tracked, again, error)) << error;
  for (const std::string& p : paths) EXPECT_TRUE(again.latest(p, "xxh64")) << p;

  // What XML 1.0 cannot carry, what is not a relative path, what the standard
  // does not define: refused, and nothing more is written.
  const auto before = snapshot(tracked);
  struct Case {
    const char* what;
    MhlHash hash;
    std::string name = "CARD";
  };
  const std::vector<Case> refused = {
      {"a control character", hashOf(std::string("bell\x07.mov"), 1, "xxh64", kXxh)},
      {"U+FFFE", hashOf("x\xEF\xBF\xBE.mov", 1, "xxh64", kXxh)},
      {"not UTF-8", hashOf("x\xFF.mov", 1, "xxh64", kXxh)},
      {"an absolute path", hashOf("/etc/passwd", 1, "xxh64", kXxh)},
      {"a parent", hashOf("Clips/../../x", 1, "xxh64", kXxh)},
      {"an empty part", hashOf("Clips//x", 1, "xxh64", kXxh)},
      {"sha256", hashOf("x", 1, "sha256", std::string(64, 'a'))},
      {"a short digest", hashOf("x", 1, "xxh64", "abc")},
      {"a digest not hex", hashOf("x", 1, "md5", std::string(32, 'g'))},
      {"a name with a slash", hashOf("x", 1, "xxh64", kXxh), "a/b"},
      {"a name with a control character", hashOf("x", 1, "xxh64", kXxh), "a\x01"},
      {"an empty name", hashOf("x", 1, "xxh64", kXxh), ""},
  };
  for (const Case& c : refused) {
    error.clear();
    EXPECT_FALSE(again.addGeneration(creator(1700001000), c.name, {}, {c.hash}, error)) << c.what;
    EXPECT_FALSE(error.empty()) << c.what;
  }
  error.clear();
  EXPECT_FALSE(again.addGeneration(creator(1700001000), "CARD", {},
                                   {hashOf("x", 1, "xxh64", kXxh), hashOf("x", 1, "xxh64", kXxh)},
                                   error));
  EXPECT_NE(error.find("twice"), std::string::npos) << error;
  EXPECT_EQ(snapshot(tracked), before);
  EXPECT_EQ(again.generations(), 1);
}

// A history that is damaged, tampered with or holds links is refused, nothing
// on disk changes, and the unloaded history writes nothing.
TEST(AscMhl, DamagedTamperedAndLinkedHistoriesAreRefusedAndLeftAlone) {
  struct Case {
    const char* what;
    std::function<void(const std::string& folder, const std::string& manifest)> damage;
    const char* reason;  // a part of the error
  };
  auto replace = [](const std::string& path, const std::string& from, const std::string& to) {
    std::string text = readFile(path);
    ASSERT_NE(text.find(from), std::string::npos) << from;
    text.replace(text.find(from), from.size(), to);
    put(path, text);
  };
  const std::vector<Case> cases = {
      {"a digest altered in a manifest",
       [&](auto&, auto& m) { replace(m, kXxh, "1111111111111111"); }, "does not match the C4"},
      {"a manifest cut short", [](auto&, auto& m) { put(m, readFile(m).substr(0, 100)); },
       "does not match the C4"},
      {"a manifest removed", [](auto&, auto& m) { fs::remove(m); }, "missing"},
      {"a manifest replaced by a link to its copy",
       [](auto& f, auto& m) {
         fs::copy_file(m, f + "/../copy.mhl");
         fs::remove(m);
         fs::create_symlink("../copy.mhl", m);
       },
       "a link"},
      {"a manifest replaced by a folder",
       [](auto&, auto& m) {
         fs::remove(m);
         fs::create_directory(m);
       },
       "a link or not a regular file"},
      {"the chain cut short",
       [](auto& f, auto&) {
         const std::string chain = f + "/ascmhl_chain.xml";
         put(chain, readFile(chain).substr(0, 120));
       },
       "damaged"},
      {"the chain removed (manifests left)",
       [](auto& f, auto&) { fs::remove(f + "/ascmhl_chain.xml"); }, "no ascmhl_chain.xml"},
      {"the chain a link",
       [](auto& f, auto&) {
         fs::rename(f + "/ascmhl_chain.xml", f + "/../chain.xml");
         fs::create_symlink("../chain.xml", f + "/ascmhl_chain.xml");
       },
       "a link"},
      {"the ascmhl folder a link",
       [](auto& f, auto&) {
         fs::rename(f, f + ".real");
         fs::create_symlink("ascmhl.real", f);
       },
       "a link or not a folder"},
      {"the ascmhl folder a file",
       [](auto& f, auto&) {
         fs::remove_all(f);
         put(f, "x");
       },
       "a link or not a folder"},
      {"the chain pointing outside the folder",
       [&](auto& f, auto&) { replace(f + "/ascmhl_chain.xml", "<path>", "<path>../"); },
       "not a file of the folder"},
      {"the chain's generations out of order",
       [&](auto& f, auto&) {
         replace(f + "/ascmhl_chain.xml", "sequencenr=\"1\"", "sequencenr=\"2\"");
       },
       "generation 2 where 1"},
      {"the chain with a document type and entities",
       [&](auto& f, auto&) {
         replace(f + "/ascmhl_chain.xml", "<ascmhldirectory",
                 "<!DOCTYPE a [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;\">]>\n"
                 "<ascmhldirectory");
       },
       "document type"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    const std::string tracked = trackedWithOneGeneration(dir);
    const std::string folder = tracked + "/ascmhl";
    const std::string manifest = folder + "/0001_CARD_2023-11-14_221320Z.mhl";
    c.damage(folder, manifest);
    const auto before = snapshot(dir.path());
    MhlHistory history;
    std::string error;
    EXPECT_FALSE(MhlHistory::load(tracked, history, error));
    EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    EXPECT_FALSE(history.loaded());
    error.clear();
    EXPECT_FALSE(history.addGeneration(creator(1700090000), "CARD", {},
                                       {hashOf("x", 1, "xxh64", kXxh)}, error));
    EXPECT_NE(error.find("did not load"), std::string::npos) << error;
    EXPECT_EQ(snapshot(dir.path()), before);
  }
}

TEST(AscMhl, MissingFoldersAreAnEmptyHistory) {
  TempDir dir;
  std::string error;
  dir.mkdir("e/ascmhl");
  for (const std::string& tracked : {dir / "nothing", dir.mkdir("empty"), dir / "e"}) {
    MhlHistory history;
    EXPECT_TRUE(MhlHistory::load(tracked, history, error)) << error;
    EXPECT_TRUE(history.loaded());
    EXPECT_EQ(history.generations(), 0);
  }
  // Generation 1 needs the tracked folder itself: it is not made.
  MhlHistory history;
  ASSERT_TRUE(MhlHistory::load(dir / "nothing", history, error));
  EXPECT_FALSE(history.addGeneration(creator(1700000000), "CARD", {}, {}, error));
  EXPECT_FALSE(fs::exists(dir / "nothing"));
}

TEST(AscMhl, AHistoryChangedSinceItWasReadOrATakenNameIsNotOverwritten) {
  TempDir dir;
  const std::string tracked = trackedWithOneGeneration(dir);
  const std::string folder = tracked + "/ascmhl";
  std::string error;

  // Two writers read generation 1; the first adds generation 2; the second may
  // not write a chain that drops it.
  MhlHistory first, second;
  ASSERT_TRUE(MhlHistory::load(tracked, first, error)) << error;
  ASSERT_TRUE(MhlHistory::load(tracked, second, error)) << error;
  ASSERT_TRUE(
      first.addGeneration(creator(1700050000), "CARD", {}, {hashOf("x", 1, "xxh64", kXxh)}, error))
      << error;
  const auto before = snapshot(dir.path());
  EXPECT_FALSE(second.addGeneration(creator(1700060000), "CARD", {},
                                    {hashOf("y", 1, "xxh64", kXxh)}, error));
  EXPECT_NE(error.find("changed since"), std::string::npos) << error;
  EXPECT_EQ(snapshot(dir.path()), before);

  // A file already at the name generation 3 would take stays as it is.
  MhlHistory third;
  ASSERT_TRUE(MhlHistory::load(tracked, third, error)) << error;
  const std::string taken = folder + "/0003_CARD_2023-11-16_000000Z.mhl";
  put(taken, "someone else's");
  const auto withTaken = snapshot(dir.path());
  EXPECT_FALSE(
      third.addGeneration(creator(1700092800), "CARD", {}, {hashOf("z", 1, "xxh64", kXxh)}, error));
  EXPECT_NE(error.find("File exists"), std::string::npos) << error;
  EXPECT_EQ(snapshot(dir.path()), withTaken);
  EXPECT_EQ(third.generations(), 2);
}

// The tracked folder is swapped for a link after the history was read: the
// generation goes into the folder that was read, never where the link leads.
TEST(AscMhl, AGenerationGoesIntoTheFolderThatWasRead) {
  for (const bool withHistory : {false, true}) {
    SCOPED_TRACE(withHistory ? "with a generation" : "empty");
    TempDir dir;
    const std::string tracked = withHistory ? trackedWithOneGeneration(dir) : dir.mkdir("CARD");
    MhlHistory history;
    std::string error;
    ASSERT_TRUE(MhlHistory::load(tracked, history, error)) << error;
    fs::rename(tracked, dir / "read");
    fs::create_symlink(dir.mkdir("elsewhere"), tracked);
    ASSERT_TRUE(history.addGeneration(creator(1700090000), "CARD", {},
                                      {hashOf("x", 1, "xxh64", kXxh)}, error))
        << error;
    EXPECT_TRUE(fs::is_empty(dir / "elsewhere"));
    EXPECT_EQ(history.generations(), withHistory ? 2 : 1);
    MhlHistory again;
    ASSERT_TRUE(MhlHistory::load(dir / "read", again, error)) << error;
    EXPECT_EQ(again.chain(), history.chain());
  }
}

TEST(AscMhl, TheStandardsExamplesRead) {
  MhlManifest manifest;
  std::string error;
  ASSERT_TRUE(kd::parseMhlManifest(
      readFile(kData + "/examples/0002_A002R2EC_2020-01-17_143000Z.mhl"), manifest, error))
      << error;
  EXPECT_EQ(manifest.creator.hostname, "myHost.local");
  EXPECT_EQ(manifest.creator.tool, "ascmhl.py");
  EXPECT_EQ(manifest.creator.toolVersion, "0.3 alpha");
  EXPECT_EQ(manifest.creator.creationDate, at(1579271400));
  EXPECT_EQ(manifest.process, "in-place");
  EXPECT_EQ(manifest.ignorePatterns, (std::vector<std::string>{".DS_Store", "ascmhl", "ascmhl/"}));
  ASSERT_EQ(manifest.hashes.size(), 3u);  // the directory hash is not a file's
  EXPECT_EQ(manifest.hashes[2],
            (MhlHash{"Sidecar.txt", 58, at(1579093200), "xxh64", "3ab5a4166b9bde44",
                     kd::MhlAction::Verified, at(1579271400)}));
  EXPECT_EQ(
      manifest.directoryHashes.root,
      (std::vector<kd::MhlDirectoryDigest>{{"xxh64", "8d02114c32e28cbe", "f557f8ca8e5a88ef"}}));
  EXPECT_EQ(manifest.directoryHashes.directories,
            (std::vector<kd::MhlDirectoryHash>{
                {"Clips", at(1579093200), {{"xxh64", "4c226b42e27d7af3", "906faa843d591a9f"}}}}));

  std::vector<MhlChainEntry> chain;
  ASSERT_TRUE(kd::parseMhlChain(readFile(kData + "/examples/ascmhl_chain.xml"), chain, error))
      << error;
  ASSERT_EQ(chain.size(), 2u);
  EXPECT_EQ(chain[1].file, "0002_A002R2EC_2020-01-17_143000Z.mhl");

  // As a folder the example lacks generation 1's manifest: refused, by name.
  TempDir dir;
  fs::copy(kData + "/examples", dir.mkdir("CARD/ascmhl"));
  MhlHistory history;
  EXPECT_FALSE(MhlHistory::load(dir / "CARD", history, error));
  EXPECT_NE(error.find("0001_A002R2EC_2020-01-16_091500Z.mhl is missing"), std::string::npos)
      << error;
}

// Documents read from a destination: what other writers may produce reads, what
// is damaged or hostile is refused with a reason, quickly.
TEST(AscMhl, ManifestReaderTable) {
  const std::string head =
      "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\">"
      "<creatorinfo><creationdate>2020-01-17T14:30:00Z</creationdate>"
      "<hostname>h</hostname><tool>t</tool></creatorinfo>"
      "<processinfo><process>transfer</process></processinfo>";
  auto withHash = [&](const std::string& hash) {
    return head + "<hashes><hash>" + hash + "</hash></hashes></hashlist>";
  };
  const std::string path = "<path size=\"5\">a.mov</path>";
  const std::string xxh = "<xxh64 hashdate=\"2020-01-17T15:30:00+01:00\">0EA03B369A463D9D</xxh64>";
  struct Case {
    const char* what;
    std::string doc;
    const char* refusal;  // nullptr: reads, with a.mov's xxh64 as kXxh
    std::optional<std::uint64_t> size = 5;
  };
  const std::vector<Case> cases = {
      {"plain", withHash(path + xxh), nullptr},
      {"a prefix for the namespace, comments, CDATA",
       "<?xml version=\"1.0\"?><!-- c --><m:hashlist version=\"2.0\" xmlns:m=\"urn:ASC:MHL:v2.0\">"
       "<m:creatorinfo><m:creationdate>2020-01-17T14:30:00.25Z</m:creationdate></m:creatorinfo>"
       "<m:processinfo><m:process>in-place</m:process></m:processinfo><m:hashes><m:hash>"
       "<m:path size=\"5\"><![CDATA[a.mov]]></m:path><!-- x --><m:xxh64 "
       "hashdate='2020-01-17T14:30:00'>0ea03b369a463d9d</m:xxh64></m:hash></m:hashes></m:hashlist>",
       nullptr},
      {"unknown elements and other namespaces skipped",
       withHash(path + "<sha256>x</sha256><o:x xmlns:o=\"urn:other\"><o:y/></o:x>" + xxh +
                "<metadata><deep><er/></deep></metadata>"),
       nullptr},
      {"another namespace", "<hashlist version=\"2.0\" xmlns=\"urn:other\"/>", "not an ASC MHL"},
      {"another version", "<hashlist version=\"1.1\" xmlns=\"urn:ASC:MHL:v2.0\"/>",
       "not version 2.0"},
      {"no creator info",
       "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"><processinfo><process>transfer"
       "</process></processinfo></hashlist>",
       "no <creatorinfo>"},
      // Found by the fuzz target: the writer refused what the reader had read.
      {"no process",
       "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"><creatorinfo><creationdate>"
       "2020-01-17T14:30:00Z</creationdate></creatorinfo><processinfo>x</processinfo></hashlist>",
       "no <process>"},
      {"a document type", "<!DOCTYPE hashlist [<!ENTITY x \"y\">]>" + withHash(path + xxh),
       "document type"},
      {"an entity", withHash("<path size=\"5\">&x;</path>"), "unknown entity"},
      {"a reference to NUL", withHash("<path size=\"5\">&#0;</path>"), "character reference"},
      {"a raw control character", withHash("<path size=\"5\">a\x01</path>"), "does not allow"},
      {"not UTF-8", withHash("<path size=\"5\">\xC0\xAF</path>"), "not UTF-8"},
      {"a size too large", withHash("<path size=\"18446744073709551616\">a</path>"), "size"},
      {"a negative size", withHash("<path size=\"-1\">a</path>"), "size"},
      // Another writer leaves the size out for empty files.
      {"no size", withHash("<path>a.mov</path>" + xxh), nullptr, std::nullopt},
      {"everything else the schema allows",
       "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"><creatorinfo><creationdate>"
       "2020-01-17T14:30:00Z</creationdate><hostname>h</hostname><tool>t</tool>"
       "<author email=\"a@b.c\" role=\"DIT\">A</author><location>L</location><comment>C</comment>"
       "</creatorinfo><processinfo><process>transfer</process><roothash><content><xxh64>"
       "0ea03b369a463d9d</xxh64></content><structure><xxh64>0ea03b369a463d9d</xxh64></structure>"
       "</roothash><ignore><pattern>*.tmp</pattern></ignore></processinfo><hashes>"
       "<directoryhash><path>d</path><content><xxh64 hashdate=\"2020-01-17T14:30:00Z\">"
       "0ea03b369a463d9d</xxh64></content><structure><xxh64>0ea03b369a463d9d</xxh64></structure>"
       "<previousPath>e</previousPath></directoryhash><hash><path size=\"5\" "
       "creationdate=\"2020-01-17T14:30:00Z\">a.mov</path><md5>" +
           std::string(kMd5) +
           "</md5><xxh64 action=\"verified\" structure=\"s\" "
           "hashdate=\"2020-01-17T14:30:00.475196+00:00\">0ea03b369a463d9d</xxh64>"
           "<previousPath>b.mov</previousPath><metadata><x/></metadata></hash></hashes>"
           "<metadata><y/></metadata><references><hashlistreference><path>n/ascmhl/x.mhl</path>"
           "<c4>c4</c4></hashlistreference></references></hashlist>",
       nullptr},
      {"a path upwards", withHash("<path size=\"1\">../a</path>" + xxh), "not relative"},
      {"an absolute path", withHash("<path size=\"1\">/a</path>" + xxh), "not relative"},
      {"February 30",
       withHash(path + "<xxh64 hashdate=\"2020-02-30T00:00:00Z\">0ea03b369a463d9d</xxh64>"),
       "hashdate"},
      {"a date past what the clock holds",
       withHash(path + "<xxh64 hashdate=\"9999-01-01T00:00:00Z\">0ea03b369a463d9d</xxh64>"),
       "hashdate"},
      {"a digest too short", withHash(path + "<md5 hashdate=\"2020-01-01T00:00:00Z\">abc</md5>"),
       "digest"},
      {"a file and format twice", withHash(path + xxh + xxh), "twice"},
      {"an unknown action",
       withHash(path + "<md5 action=\"ok\" hashdate=\"2020-01-01T00:00:00Z\">" + kMd5 + "</md5>"),
       "action"},
      {"a hash before its path", withHash(xxh + path), "before its <path>"},
      {"an element inside a path", withHash("<path size=\"1\">a<b/></path>"), "inside"},
      {"mismatched tags", withHash(path + "<xxh64 hashdate=\"x\">a</xxh3>"), "hashdate"},
      {"cut short", withHash(path + xxh).substr(0, 300), "unterminated"},
      {"content after", withHash(path + xxh) + "<x/>", "after"},
      {"an unbound prefix", withHash(path + "<q:x/>" + xxh), "unbound"},
      {"nested too deep", head + std::string(200000, '<') + "", "malformed"},
      {"nested deep in metadata",
       withHash(path +
                [] {
                  std::string s;
                  for (int i = 0; i < 100000; ++i) s += "<m>";
                  return s;
                }()),
       "deeper than"},
      {"an attribute twice", withHash("<path size=\"1\" size=\"2\">a</path>"), "twice"},
      {"a text too long", withHash("<path size=\"1\">" + std::string(1 << 20, 'a') + "</path>"),
       "longer than"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    MhlManifest manifest;
    std::string error;
    const bool ok = kd::parseMhlManifest(c.doc, manifest, error);
    if (c.refusal) {
      EXPECT_FALSE(ok);
      EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
      continue;
    }
    ASSERT_TRUE(ok) << error;
    ASSERT_FALSE(manifest.hashes.empty());
    const MhlHash& xxh64 = manifest.hashes.back();
    EXPECT_EQ(xxh64.path, "a.mov");
    EXPECT_EQ(xxh64.digest, kXxh);
    EXPECT_EQ(xxh64.size, c.size);
    EXPECT_EQ(xxh64.hashDate, at(1579271400));
  }
}

TEST(AscMhl, ChainReaderTable) {
  const std::string c4 = kd::mhlC4Id("");
  auto entry = [&](const std::string& seq, const std::string& file) {
    return "<hashlist sequencenr=\"" + seq + "\"><path>" + file + "</path><c4>" + c4 +
           "</c4></hashlist>";
  };
  auto chain = [](const std::string& body) {
    return "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">" + body + "</ascmhldirectory>";
  };
  struct Case {
    const char* what;
    std::string doc;
    const char* refusal;
  };
  const std::vector<Case> cases = {
      {"two generations", chain(entry("1", "a.mhl") + entry(" 2 ", "b.mhl")), nullptr},
      {"none", chain(""), "no generation"},
      {"a gap", chain(entry("1", "a.mhl") + entry("3", "b.mhl")), "generation 3 where 2"},
      {"a huge number", chain(entry("99999999999999999999", "a.mhl")), "sequence number"},
      {"a file listed twice", chain(entry("1", "a.mhl") + entry("2", "a.mhl")), "twice"},
      {"a path with a folder", chain(entry("1", "x/a.mhl")), "not a file of the folder"},
      {"a dot-dot", chain(entry("1", "..")), "not a file of the folder"},
      {"a malformed C4",
       chain("<hashlist sequencenr=\"1\"><path>a</path><c4>c4xyz</c4></hashlist>"), "C4"},
      {"no C4", chain("<hashlist sequencenr=\"1\"><path>a</path></hashlist>"), "<c4>"},
      {"the manifest's namespace", "<ascmhldirectory xmlns=\"urn:ASC:MHL:v2.0\"/>", "not an ASC"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<MhlChainEntry> entries;
    std::string error;
    const bool ok = kd::parseMhlChain(c.doc, entries, error);
    if (c.refusal) {
      EXPECT_FALSE(ok);
      EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
    } else {
      ASSERT_TRUE(ok) << error;
      EXPECT_EQ(entries, (std::vector<MhlChainEntry>{{1, "a.mhl", c4}, {2, "b.mhl", c4}}));
    }
  }
}

}  // namespace
