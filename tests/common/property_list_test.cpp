#include "common/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/TempDir.h"

using namespace kd;
using kd::test::readFile;
using kd::test::TempDir;

TEST(PropertyList, RoundTripsEveryValueType) {
  TempDir dir;
  PlistDate when{std::chrono::seconds(1700000000)};       // XML dates keep whole seconds
  PlistDate before2001{std::chrono::seconds(946684800)};  // 2000-01-01
  PlistDict dict{{"s", "text & <markup>"},
                 {"i", std::int64_t{-42}},
                 {"big", std::int64_t{1} << 40},
                 {"r", 2.5},
                 {"t", true},
                 {"f", false},
                 {"d", when},
                 {"old", before2001},
                 {"data", PlistData{{0, 1, 2, 255}}},
                 {"a", PlistArray{"x", 1, PlistArray{}}},
                 {"nested", PlistDict{{"k", "v"}}}};
  std::string path = dir / "x.plist";
  std::string error;
  ASSERT_TRUE(writePlistDictionaryAtomically(dict, path, &error)) << error;
  auto back = readPlistDictionary(path);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, dict);
  EXPECT_NE(readFile(path).find("<?xml"), std::string::npos) << "written as XML";
}

TEST(PropertyList, HostileOrMissingFilesGiveNoDictionary) {
  TempDir dir;
  struct Case {
    const char* name;
    std::string contents;
  } cases[] = {
      {"empty", ""},
      {"garbage", "\x01\x02garbage"},
      {"truncated xml", "<?xml version=\"1.0\"?><plist><dict><key>a</key>"},
      {"array root", "<?xml version=\"1.0\"?><plist version=\"1.0\"><array/></plist>"},
      {"string root", "<?xml version=\"1.0\"?><plist version=\"1.0\"><string>x</string></plist>"},
      {"bad binary", std::string("bplist00\xff\xff\xff", 11)},
      {"deep",
       std::string("<?xml version=\"1.0\"?><plist><dict><key>a</key>") + std::string(5000, '[')},
  };
  for (const auto& c : cases) {
    std::string path = dir.touch(c.name, c.contents);
    EXPECT_FALSE(readPlistDictionary(path)) << c.name;
    EXPECT_TRUE(readPlistDictionaryOrEmpty(path).empty()) << c.name;
  }
  EXPECT_FALSE(readPlistDictionary(dir / "missing.plist"));
  EXPECT_FALSE(readPlistDictionary(dir.path())) << "a folder is not a dictionary";
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

TEST(PropertyList, ReadsBinaryFiles) {
  // A binary property list {"k": "v", "n": 1} made by hand.
  const unsigned char bin[] = {
      0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd2, 0x01, 0x02, 0x03, 0x04, 0x51, 0x6b,
      0x51, 0x6e, 0x51, 0x76, 0x10, 0x01, 0x08, 0x0d, 0x0f, 0x11, 0x13, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x15};
  TempDir dir;
  std::string path =
      dir.touch("b.plist", std::string(reinterpret_cast<const char*>(bin), sizeof bin));
  auto d = readPlistDictionary(path);
  ASSERT_TRUE(d);
  EXPECT_EQ(*d->at("k").get<std::string>(), "v");
  EXPECT_EQ(*d->at("n").get<std::int64_t>(), 1);
}
