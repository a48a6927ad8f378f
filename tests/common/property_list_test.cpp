#include "common/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "common/AtomicFile.h"

#include "support/Process.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

using namespace kd;
using namespace std::string_literals;
using kd::test::readFile;
using kd::test::ScopedEnv;
using kd::test::TempDir;

// The dictionary forms write XML and read it back; what every value type and
// hostile input do is the plist format tests' matter.
TEST(PropertyList, DictionaryFormsWriteXmlAndReadItBack) {
  TempDir dir;
  PlistDict dict{{"s", "text & <markup>"},
                 {"d", PlistDate{std::chrono::seconds(946684800)}},  // before 2001
                 {"a", PlistArray{"x", 1, PlistArray{}, PlistDict{{"k", "v"}}}}};
  std::string path = dir / "x.plist";
  std::string error;
  ASSERT_TRUE(writePlistDictionaryAtomically(dict, path, &error)) << error;
  EXPECT_EQ(readPlistDictionary(path), dict);
  EXPECT_NE(readFile(path).find("<?xml"), std::string::npos) << "written as XML";
}

TEST(PropertyList, FailedWriteLeavesWhatWasThereAndSaysWhy) {
  TempDir dir;
  std::string error;
  EXPECT_FALSE(writePlistDictionaryAtomically({{"a", "1"}}, dir / "missing/x.plist", &error));
  EXPECT_NE(error.find("missing"), std::string::npos) << error;

  // A folder in the way cannot be replaced, not even by root.
  std::string inTheWay = dir.mkdir("x.plist");
  dir.touch("x.plist/keep", "data");
  error.clear();
  EXPECT_FALSE(writePlistDictionaryAtomically({{"a", "2"}}, inTheWay, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(readFile(inTheWay + "/keep"), "data");
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    EXPECT_EQ(e.path().filename().string().find(".x.plist.tmp"), std::string::npos)
        << "temporary file left behind: " << e.path();
}

TEST(PropertyList, FlagRule) {
  struct Case {
    PlistValue value;
    bool set;
  } cases[] = {{"1", true},  {true, true},   {1, true},     {1.0, true},
               {"0", false}, {"yes", false}, {0, false},    {false, false},
               {2, false},   {1.5, false},   {"1 ", false}, {PlistArray{"1"}, false}};
  for (const auto& c : cases) {
    PlistDict d{{"disable-logging", c.value}};
    EXPECT_EQ(plistFlagIsSet(d, "disable-logging"), c.set) << plistDictionaryToXml(d);
  }
  EXPECT_FALSE(plistFlagIsSet({}, "disable-logging"));
}

TEST(PropertyList, FileStatusesSayWhatIsThere) {
  TempDir dir;
  const std::string xml = dir.touch("ok.plist", plistDictionaryToXml({{"k", "v"}}));
  const std::string bin = dir / "bin.plist";
  ASSERT_TRUE(writePlistFileAtomically({{"k", "v"}}, bin, PlistFormat::Binary));
  const std::string fifo = dir / "fifo.plist";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0644), 0);
  std::filesystem::create_symlink(xml, dir / "link.plist");
  std::filesystem::create_symlink(dir / "gone", dir / "dangling.plist");
  struct Case {
    std::string path;
    PlistReadStatus status;
    bool followLinks = true;
    PlistFormat format = PlistFormat::Xml;
    std::string reason = {};  // checked when given
  } cases[] = {
      {xml, PlistReadStatus::Ok},
      {bin, PlistReadStatus::Ok, true, PlistFormat::Binary},
      {dir / "link.plist", PlistReadStatus::Ok},
      {dir / "link.plist", PlistReadStatus::Unreadable, false, PlistFormat::Xml,
       "Too many levels of symbolic links"},
      {dir / "missing.plist", PlistReadStatus::Missing, true, PlistFormat::Xml,
       "No such file or directory"},
      {dir / "dangling.plist", PlistReadStatus::Missing},
      {dir / "ok.plist/below", PlistReadStatus::Missing, true, PlistFormat::Xml, "Not a directory"},
      {dir.path(), PlistReadStatus::Unreadable, true, PlistFormat::Xml, "not a regular file"},
      {fifo, PlistReadStatus::Unreadable},  // and at once: nobody writes to it
      {"/dev/null", PlistReadStatus::Unreadable},
      {dir.touch("damaged.plist", "<plist><dict>"), PlistReadStatus::Damaged},
      {dir.touch("damaged.bplist", "bplist00"), PlistReadStatus::Damaged, true,
       PlistFormat::Binary},
  };
  for (const auto& c : cases) {
    PlistFile file = readPlistFile(c.path, c.followLinks);
    EXPECT_EQ(file.status, c.status) << c.path << ": " << file.reason;
    EXPECT_EQ(file.format, c.format) << c.path;
    EXPECT_EQ(file.status == PlistReadStatus::Ok, file.reason.empty()) << c.path;
    if (!c.reason.empty()) {
      EXPECT_EQ(file.reason, c.reason) << c.path;
    }
    // The dictionary forms (which follow links): a dictionary only from a file that reads.
    if (c.followLinks) {
      EXPECT_EQ(readPlistDictionary(c.path).has_value(), c.status == PlistReadStatus::Ok) << c.path;
      EXPECT_EQ(readPlistDictionaryOrEmpty(c.path).empty(), c.status != PlistReadStatus::Ok);
    }
    if (c.status == PlistReadStatus::Ok) {
      EXPECT_EQ(*file.dict.at("k").get<std::string>(), "v");
    }
  }
}

TEST(PropertyList, AFileTheUserCannotReadIsUnreadableNotMissing) {
  TempDir dir;
  ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
  const std::string path = dir.touch("locked.plist", plistDictionaryToXml({{"k", "v"}}));
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  // A child as the user nobody (root reads any file): exit code = status.
  const int status =
      kd::test::runAsNobody([&] { return static_cast<int>(readPlistFile(path).status); });
  if (status == kd::test::kCannotDrop)
    GTEST_SKIP() << "cannot switch to the user nobody (uid 65534)";
  EXPECT_EQ(status, static_cast<int>(PlistReadStatus::Unreadable));
}

TEST(PropertyList, A70MegabyteFileReadsAndWritesBackUnchanged) {
  // In memory where there is a memory file system: syncing 140 MB to a disk
  // would cost seconds and prove nothing here.
  std::optional<ScopedEnv> tmp;
  if (access("/dev/shm", W_OK) == 0)
    tmp.emplace(std::vector<std::string>{"TMPDIR"}, std::vector<ScopedEnv::Value>{"/dev/shm"});
  TempDir dir;
  PlistData blob;
  blob.bytes.resize(52u << 20);
  for (std::size_t i = 0; i < blob.bytes.size(); ++i)
    blob.bytes[i] = static_cast<std::uint8_t>(i * 2654435761u >> 13);
  PlistArray list;
  for (int i = 0; i < 10000; ++i) list.push_back("entry " + std::to_string(i));
  const PlistDict dict{{"blob", std::move(blob)}, {"list", std::move(list)}};
  const std::string first = dir / "a.plist", second = dir / "b.plist";
  ASSERT_TRUE(writePlistFileAtomically(dict, first, PlistFormat::Xml));
  ASSERT_GT(std::filesystem::file_size(first), 70u * 1000 * 1000);
  PlistFile file = readPlistFile(first);
  ASSERT_EQ(file.status, PlistReadStatus::Ok) << file.reason;
  EXPECT_TRUE(file.dict == dict);
  ASSERT_TRUE(writePlistFileAtomically(file.dict, second, file.format));
  EXPECT_TRUE(readFile(first) == readFile(second)) << "written back byte for byte";
}

TEST(PropertyList, WritesForAnotherOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  TempDir dir;
  const FileOwner nobody{65534, 65534};
  const std::string path = dir / "x.plist";
  ASSERT_TRUE(writePlistFileAtomically({{"k", 1}}, path, PlistFormat::Binary, nullptr, nobody));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(st.st_gid, 65534u);
  EXPECT_EQ(readPlistFile(path).format, PlistFormat::Binary);
}
