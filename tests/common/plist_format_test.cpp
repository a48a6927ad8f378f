// The two property-list forms: exact round trips, hostile input, and files
// that other readers (xmllint, libplist) accept.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <limits>

#include "common/PropertyList.h"
#include "support/TempDir.h"

using namespace kd;
using namespace std::string_literals;
using kd::test::TempDir;

namespace {

constexpr PlistFormat kFormats[] = {PlistFormat::Xml, PlistFormat::Binary};
const char* name(PlistFormat f) {
  return f == PlistFormat::Xml ? "xml" : "binary";
}

PlistDate date(long long since1970) {
  return PlistDate{std::chrono::seconds(since1970)};
}

std::string bigEndian(std::uint64_t v, unsigned size) {
  std::string out;
  for (unsigned i = size; i-- > 0;) out += static_cast<char>(v >> (8 * i));
  return out;
}

// A binary property list made of the given objects, object 0 the root;
// references inside the objects are `refSize` bytes (see ref()).
std::string bplist(const std::vector<std::string>& objects, unsigned refSize = 1) {
  std::string out = "bplist00";
  std::string table;
  for (const auto& o : objects) {
    table += bigEndian(out.size(), 4);
    out += o;
  }
  const std::uint64_t tableAt = out.size();
  return out + table + std::string(6, '\0') + '\x04' + static_cast<char>(refSize) +
         bigEndian(objects.size(), 8) + bigEndian(0, 8) + bigEndian(tableAt, 8);
}
std::string ref(std::uint64_t i, unsigned size = 1) {
  return bigEndian(i, size);
}
// Overwrites `size` bytes at `at` (negative: from the end).
std::string patched(std::string s, long at, std::uint64_t v, unsigned size) {
  s.replace(at < 0 ? s.size() + at : at, size, bigEndian(v, size));
  return s;
}

// {"k": object 2}, object 1 being the key "k".
std::vector<std::string> underKey(std::vector<std::string> rest, unsigned refSize = 1) {
  std::vector<std::string> objects{"\xD1" + ref(1, refSize) + ref(2, refSize), "\x51k"};
  objects.insert(objects.end(), rest.begin(), rest.end());
  return objects;
}

std::string nestedXml(std::size_t depth) {
  std::string s = "<plist><dict><key>a</key>";
  for (std::size_t i = 1; i < depth; ++i) s += "<array>";
  for (std::size_t i = 1; i < depth; ++i) s += "</array>";
  return s + "</dict></plist>";
}

std::string nestedBinary(std::size_t depth) {
  std::vector<std::string> arrays;  // objects 2, 3, ...: each holds the next
  for (std::size_t i = 0; i + 2 < depth; ++i) arrays.push_back("\xA1" + ref(3 + i, 4));
  arrays.push_back("\xA0");
  return bplist(underKey(arrays, 4), 4);
}

PlistValue deepValue(std::size_t depth) {
  PlistValue v = PlistArray{};
  for (std::size_t i = 1; i < depth; ++i) v = PlistArray{std::move(v)};
  return v;
}

}  // namespace

TEST(PlistFormat, EdgeValuesRoundTripInBothForms) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* name;
    PlistValue value;
    bool xmlRefused = false;
    std::optional<PlistValue> xmlBack = {};  // when XML keeps less than binary
  } cases[] = {
      {"int64 min", std::numeric_limits<std::int64_t>::min()},
      {"minus one", std::int64_t{-1}},
      {"int64 max", std::numeric_limits<std::int64_t>::max()},
      {"2^63", std::uint64_t{1} << 63},
      {"uint64 max", std::numeric_limits<std::uint64_t>::max()},
      {"zero", 0},
      {"300", 300},
      {"70000", 70000},
      {"2^32", std::int64_t{1} << 32},
      {"1900-01-01", date(-2208988800)},
      {"1901-12-13, before 32-bit seconds", date(-2147483649)},
      {"2038-01-19, after 32-bit seconds", date(2147483648)},
      {"2100-01-01", date(4102444800)},
      {"2001-01-01", date(978307200)},
      {"year 1", PlistStoredDate{-63113904000}},
      {"year 4001", PlistStoredDate{64092211200}},
      {"a fraction of a year-1 second", PlistStoredDate{-63113904000.5}, false,
       PlistStoredDate{-63113904001}},
      {"a fraction of a second",
       PlistDate{std::chrono::seconds(978307200 + 700000000) + std::chrono::milliseconds(250)},
       false, date(978307200 + 700000000)},
      {"finer than the clock", PlistStoredDate{1e-12}, false, date(978307200)},
      {"year 20000", PlistStoredDate{6e11}, true},
      {"empty string", ""},
      {"markup", "&<>\"' ]]> &amp;"},
      {"tab, line feed, carriage return", "a\tb\nc\r\nd\r"},
      {"UTF-8", "Grüße, ключ, 日本, 🎞️ \xEF\xBF\xBD"},
      {"NUL", std::string("x\0y", 3), true},
      {"control character", "bell\x07", true},
      {"U+FFFF", "\xEF\xBF\xBF", true},
      {"long", std::string(100000, 'z')},
      {"data", PlistData{{0, 1, 2, 0x7f, 0x80, 0xfe, 0xff}}},
      {"empty data", PlistData{}},
      {"data of 1, 2, 3 and 52 bytes",
       PlistArray{PlistData{{1}}, PlistData{{1, 2}}, PlistData{{1, 2, 3}},
                  PlistData{std::vector<std::uint8_t>(52, 0xAB)}}},
      {"reals", PlistArray{0.1, -0.0, 1e308, 5e-324, -2.5e-7, inf, -inf, 1.0}},
      {"booleans", PlistArray{true, false}},
      {"empty containers", PlistArray{PlistArray{}, PlistDict{}}},
      {"nested", PlistDict{{"a", PlistArray{PlistDict{{"b", PlistArray{1, "x"}}}}}}},
      {"512 levels", deepValue(kPlistMaxDepth - 1)},
      {"keys", PlistDict{{"", 1}, {"ключ 🔑", 2}, {"&<>", 3}, {std::string(20, 'k'), 4}}},
      {"a key with NUL", PlistDict{{std::string("a\0b", 3), 1}}, true},
  };
  TempDir dir;
  for (const auto& c : cases) {
    for (PlistFormat format : kFormats) {
      SCOPED_TRACE(std::string(c.name) + " as " + name(format));
      const PlistDict dict{{"v", c.value}};
      const std::string path = dir / "x.plist";
      std::string error;
      const bool refused = format == PlistFormat::Xml && c.xmlRefused;
      ASSERT_EQ(writePlistFileAtomically(dict, path, format, &error), !refused) << error;
      if (refused) {
        EXPECT_FALSE(error.empty());
        continue;
      }
      PlistFile back = readPlistFile(path);
      ASSERT_EQ(back.status, PlistReadStatus::Ok) << back.reason;
      EXPECT_EQ(back.format, format);
      const PlistValue& expected = format == PlistFormat::Xml && c.xmlBack ? *c.xmlBack : c.value;
      EXPECT_TRUE((back.dict == PlistDict{{"v", expected}}));
    }
  }
  // Not a number compares unequal to itself: checked apart.
  for (PlistFormat format : kFormats) {
    auto bytes = serializePlist({{"n", std::nan("")}}, format);
    ASSERT_TRUE(bytes);
    PlistFile back = parsePlist(*bytes);
    ASSERT_EQ(back.status, PlistReadStatus::Ok) << back.reason;
    EXPECT_TRUE(std::isnan(*back.dict.at("n").get<double>())) << name(format);
  }
}

TEST(PlistFormat, DatesOfTodayComeBackAsClockTimes) {
  // Dates written by other programs carry a fraction in a double; they must
  // read as PlistDate (callers compare them) and be written back unchanged.
  for (double since : {785000000.123456789, 785000000.5, -1e9 + 0.001, 0.0, 1.5}) {
    const std::string object = "\x33" + bigEndian(std::bit_cast<std::uint64_t>(since), 8);
    PlistFile file = parsePlist(bplist(underKey({object})));
    ASSERT_EQ(file.status, PlistReadStatus::Ok) << file.reason;
    EXPECT_TRUE(file.dict.at("k").is<PlistDate>()) << since;
    const std::string back = serializePlist(file.dict, PlistFormat::Binary).value();
    EXPECT_NE(back.find(object), std::string::npos) << since;
  }
}

TEST(PlistFormat, HostileInputIsDamagedNeverACrashOrAHang) {
  const std::string valid = serializePlist({{"k", "v"}, {"n", 1}}, PlistFormat::Binary).value();
  const std::string dictOfK = "<plist><dict><key>k</key>";
  struct Case {
    const char* name;
    std::string bytes;
  } cases[] = {
      {"empty file", ""},
      {"neither XML nor binary", "\x01\x02garbage"},
      {"NUL in an XML string", "<plist><dict><key>a</key><string>x\0y</string></dict></plist>"s},
      {"NUL by reference", dictOfK + "<string>&#0;</string></dict></plist>"},
      {"control character by reference", dictOfK + "<string>&#x1;</string></dict></plist>"},
      {"unknown entity", dictOfK + "<string>&nbsp;</string></dict></plist>"},
      {"not UTF-8", dictOfK + "<string>\xff</string></dict></plist>"},
      {"200,000 nested arrays in XML", nestedXml(200000)},
      {"513 nested containers in XML", nestedXml(kPlistMaxDepth + 1)},
      {"200,000 nested arrays in binary", nestedBinary(200000)},
      {"513 nested containers in binary", nestedBinary(kPlistMaxDepth + 1)},
      {"integer above 64 bits", dictOfK + "<integer>18446744073709551616</integer></dict></plist>"},
      {"integer below int64", dictOfK + "<integer>-9223372036854775809</integer></dict></plist>"},
      {"hex integer above 64 bits",
       dictOfK + "<integer>0x1ffffffffffffffff</integer></dict></plist>"},
      {"integer with junk", dictOfK + "<integer>12abc</integer></dict></plist>"},
      {"empty integer", dictOfK + "<integer/></dict></plist>"},
      {"real with junk", dictOfK + "<real>1.5.5</real></dict></plist>"},
      {"real beyond double", dictOfK + "<real>1e400</real></dict></plist>"},
      {"February 30", dictOfK + "<date>2023-02-30T00:00:00Z</date></dict></plist>"},
      {"date in words", dictOfK + "<date>yesterday</date></dict></plist>"},
      {"bad base64", dictOfK + "<data>!!!!</data></dict></plist>"},
      {"text in true", dictOfK + "<true>yes</true></dict></plist>"},
      {"unknown element", dictOfK + "<uid>1</uid></dict></plist>"},
      {"value without key", "<plist><dict><string>v</string></dict></plist>"},
      {"key without value", "<plist><dict><key>k</key></dict></plist>"},
      {"two keys", "<plist><dict><key>a</key><key>b</key><true/></dict></plist>"},
      {"mismatched end", dictOfK + "<true/></array></plist>"},
      {"unterminated", dictOfK + "<string>v"},
      {"two roots", "<plist><dict/><dict/></plist>"},
      {"junk after", "<plist><dict/></plist>junk"},
      {"array root in XML", "<plist><array/></plist>"},
      {"string root in XML", "<plist><string>x</string></plist>"},
      {"empty plist", "<plist/>"},
      {"unknown binary version", "bplist01" + valid.substr(8)},
      {"truncated binary", valid.substr(0, valid.size() - 1)},
      {"binary without trailer", valid.substr(0, 20)},
      {"garbage binary", "bplist00" + std::string(100, '\xff')},
      {"offset size 0", patched(valid, -26, 0, 1)},
      {"offset size 9", patched(valid, -26, 9, 1)},
      {"reference size 0", patched(valid, -25, 0, 1)},
      {"huge object count", patched(valid, -24, std::uint64_t{1} << 62, 8)},
      {"root beyond the objects", patched(valid, -16, 99, 8)},
      {"offset table beyond the file", patched(valid, -8, 1u << 30, 8)},
      {"offset beyond the file", patched(bplist(underKey({"\x09"})), -32 - 4, 100, 4)},
      {"offset into the offset table", patched(bplist(underKey({"\x09"})), -32 - 4, 14, 4)},
      {"offset into the header", patched(bplist(underKey({"\x09"})), -32 - 4, 0, 4)},
      {"reference to no object", bplist(underKey({"\xA1" + ref(99)}))},
      {"a container holding itself", bplist(underKey({"\xA1" + ref(2)}))},
      {"a cycle of two", bplist(underKey({"\xA1" + ref(3), "\xA1" + ref(2)}))},
      {"the root inside itself", bplist({"\xD1" + ref(1) + ref(0), "\x51k"})},
      {"huge array count", bplist(underKey({"\xAF\x13" + bigEndian(std::uint64_t{1} << 62, 8)}))},
      {"huge data count", bplist(underKey({"\x4F\x13" + bigEndian(std::uint64_t{1} << 62, 8)}))},
      {"huge string count", bplist(underKey({"\x6F\x13" + bigEndian(~std::uint64_t{0}, 8)}))},
      {"malformed count", bplist(underKey({"\x4F\x51k"}))},
      {"string past the end", bplist(underKey({"\x5Eshort"}))},
      {"shared containers expanding 2^60 times",
       [] {
         std::vector<std::string> levels;
         for (int i = 0; i < 60; ++i) levels.push_back("\xA2" + ref(3 + i) + ref(3 + i));
         levels.push_back("\xA0");
         return bplist(underKey(levels));
       }()},
      {"key that is not a string", bplist({"\xD1" + ref(1) + ref(1), "\x10\x01"})},
      {"non-ASCII byte in an ASCII string", bplist(underKey({"\x51\xe9"}))},
      {"unpaired surrogate", bplist(underKey({std::string("\x61\xD8\x00", 3)}))},
      {"integer beyond 64 bits", bplist(underKey({"\x14" + bigEndian(1, 8) + bigEndian(0, 8)}))},
      {"a null", bplist(underKey({std::string(1, '\0')}))},
      {"a UID", bplist(underKey({"\x80\x01"}))},
      {"array root in binary", bplist({"\xA0"})},
  };
  for (const auto& c : cases) {
    PlistFile file = parsePlist(c.bytes);
    EXPECT_EQ(file.status, PlistReadStatus::Damaged) << c.name;
    EXPECT_FALSE(file.reason.empty()) << c.name;
    EXPECT_TRUE(file.dict.empty()) << c.name;
  }
}

TEST(PlistFormat, ReadsWhatXmlAllowsAndBinaryMayShare) {
  const PlistDict kv{{"k", "v"}};
  struct Case {
    const char* name;
    std::string bytes;
    PlistDict dict;
  } cases[] = {
      {"prolog, comments, document type with a subset, byte-order mark",
       "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!-- a -->\n<!DOCTYPE plist [ <!ELEMENT x (y)> ]>"
       "<?pi x?><plist version='1.0'><!-- b --><dict>\n  <key>k</key> <!-- c --> "
       "<string>v</string>\n</dict></plist>\n<!-- d -->\n",
       kv},
      {"no <plist> around the root", "<dict><key>k</key><string>v</string></dict>", kv},
      {"references, CDATA, comment inside text",
       "<plist><dict><key>k</key><string>&lt;&gt;&amp;&quot;&apos;&#65;&#x42;&#x1F39E;"
       "<![CDATA[<&>]]>a<!-- x -->b&#13;</string></dict></plist>",
       {{"k", "<>&\"'AB\xF0\x9F\x8E\x9E<&>ab\r"}}},
      {"empty forms",
       "<plist><dict><key>a</key><array/><key>d</key><dict/><key>s</key><string/>"
       "<key>t</key><true/><key>f</key><false></false><key>e</key><data/><key/><true/>"
       "</dict></plist>",
       {{"a", PlistArray{}},
        {"d", PlistDict{}},
        {"s", ""},
        {"t", true},
        {"f", false},
        {"e", PlistData{}},
        {"", true}}},
      {"numbers with space, sign and hex",
       "<plist><dict><key>h</key><integer> 0x1F </integer><key>p</key><integer>+7</integer>"
       "<key>r</key><real>\n-Infinity\n</real><key>x</key><real>1E3</real></dict></plist>",
       {{"h", 31}, {"p", 7}, {"r", -std::numeric_limits<double>::infinity()}, {"x", 1000.0}}},
      {"base64 in lines without padding",
       "<plist><dict><key>d</key><data>\n\tAAEC\n\t/w\n</data></dict></plist>",
       {{"d", PlistData{{0, 1, 2, 255}}}}},
      {"a later duplicate key wins",
       "<plist><dict><key>k</key><string>old</string><key>k</key><string>v</string></dict></plist>",
       kv},
      {"a NUL in a binary key",
       bplist({"\xD1" + ref(1) + ref(2),
               std::string("\x53"
                           "a\0b",
                           4),
               "\x09"}),
       {{std::string("a\0b", 3), true}}},
      {"shared objects in binary (keys and values)",
       bplist({"\xD2" + ref(1) + ref(2) + ref(3) + ref(3), "\x51x", "\x51y",
               "\xA2" + ref(4) + ref(4), "\x51s"}),
       {{"x", PlistArray{"s", "s"}}, {"y", PlistArray{"s", "s"}}}},
      {"1-, 2-, 4-, 8-, 16-byte integers and a 4-byte real",
       bplist({"\xD1" + ref(1) + ref(2), "\x51k",
               "\xA6" + ref(3) + ref(4) + ref(5) + ref(6) + ref(7) + ref(8), "\x10\xff",
               std::string("\x11\x01\x00", 3), "\x12\xff\xff\xff\xff",
               "\x13" + bigEndian(~std::uint64_t{0}, 8),
               "\x14" + bigEndian(~std::uint64_t{0}, 8) + bigEndian(~std::uint64_t{0} - 1, 8),
               std::string("\x22\x3f\xc0\x00\x00", 5)}),
       {{"k", PlistArray{255, 256, std::int64_t{4294967295}, -1, -2, 1.5}}}},
  };
  for (const auto& c : cases) {
    PlistFile file = parsePlist(c.bytes);
    ASSERT_EQ(file.status, PlistReadStatus::Ok) << c.name << ": " << file.reason;
    EXPECT_TRUE(file.dict == c.dict) << c.name;
  }
}

TEST(PlistFormat, WritersRefuseWhatTheReadersWouldRefuse) {
  const PlistDict deep{{"k", deepValue(kPlistMaxDepth)}};
  const PlistDict notUtf8{{"k", "\xff"}};
  std::string error;
  EXPECT_FALSE(serializePlist({{"key", std::string(1, '\0')}}, PlistFormat::Xml, &error));
  EXPECT_NE(error.find("\"key\""), std::string::npos) << "names the key: " << error;
  for (PlistFormat format : kFormats) {
    error.clear();
    EXPECT_FALSE(serializePlist(deep, format, &error)) << name(format);
    EXPECT_NE(error.find("deeper"), std::string::npos) << error;
    error.clear();
    EXPECT_FALSE(serializePlist(notUtf8, format, &error)) << name(format);
    EXPECT_NE(error.find("UTF-8"), std::string::npos) << error;
  }
  TempDir dir;
  const std::string path = dir.touch("x.plist", "old");
  EXPECT_FALSE(writePlistFileAtomically({{"k", std::string(1, '\0')}}, path, PlistFormat::Xml));
  EXPECT_EQ(kd::test::readFile(path), "old");
}

TEST(PlistFormat, StrictXmlReadersAcceptOurXml) {
  if (access("/usr/bin/xmllint", X_OK) != 0)
    GTEST_SKIP() << "xmllint is not installed (Debian package libxml2-utils)";
  TempDir dir;
  const PlistDict dict{
      {"markup & <text>", "&<>\"' ]]> \t\n\r"},
      {"unicode", "Grüße 🎞️ \xEF\xBF\xBD"},
      {"numbers", PlistArray{std::numeric_limits<std::uint64_t>::max(), -1, 0.1, std::nan(""),
                             -std::numeric_limits<double>::infinity()}},
      {"dates", PlistArray{date(-2208988800), date(4102444800), PlistStoredDate{-63113904000}}},
      {"data", PlistData{std::vector<std::uint8_t>(200, 7)}},
      {"empty", PlistArray{PlistArray{}, PlistDict{}, "", PlistData{}}},
  };
  const std::string path = dir / "x.plist";
  ASSERT_TRUE(writePlistDictionaryAtomically(dict, path));
  const std::string command = "/usr/bin/xmllint --noout --nonet '" + path + "' 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0) << "xmllint refused " << kd::test::readFile(path);
}

TEST(PlistFormat, LibplistReadsOurFilesAndWeReadItsFiles) {
  const std::vector<std::uint8_t> bytes{0, 1, 255};
  const PlistDict dict{{"s", "v"},
                       {"u", "é"},
                       {"i", 42},
                       {"big", std::int64_t{1} << 40},
                       {"r", 2.5},
                       {"t", true},
                       {"d", PlistData{bytes}},
                       {"when", date(978307200 + 86400)},
                       {"a", PlistArray{"x", PlistDict{{"k", false}}}}};
  for (PlistFormat format : kFormats) {
    SCOPED_TRACE(name(format));
    const std::string ours = serializePlist(dict, format).value();
    plist_t root = nullptr;
    if (format == PlistFormat::Xml)
      plist_from_xml(ours.data(), static_cast<uint32_t>(ours.size()), &root);
    else
      plist_from_bin(ours.data(), static_cast<uint32_t>(ours.size()), &root);
    ASSERT_TRUE(root);
    auto text = [&](const char* key) {
      char* s = nullptr;
      plist_get_string_val(plist_dict_get_item(root, key), &s);
      std::string out = s ? s : "";
      free(s);
      return out;
    };
    uint64_t i = 0, big = 0;
    double r = 0;
    uint8_t t = 0;
    int32_t sec = -1, usec = -1;
    plist_get_uint_val(plist_dict_get_item(root, "i"), &i);
    plist_get_uint_val(plist_dict_get_item(root, "big"), &big);
    plist_get_real_val(plist_dict_get_item(root, "r"), &r);
    plist_get_bool_val(plist_dict_get_item(root, "t"), &t);
    plist_get_date_val(plist_dict_get_item(root, "when"), &sec, &usec);
    EXPECT_EQ(text("s"), "v");
    EXPECT_EQ(text("u"), "é");
    EXPECT_EQ(i, 42u);
    EXPECT_EQ(big, std::uint64_t{1} << 40);
    EXPECT_EQ(r, 2.5);
    EXPECT_EQ(t, 1);
    EXPECT_EQ(sec, 86400);
    EXPECT_EQ(plist_array_get_size(plist_dict_get_item(root, "a")), 2u);

    // And back: what libplist writes of the same tree, we read.
    char* out = nullptr;
    uint32_t length = 0;
    if (format == PlistFormat::Xml)
      plist_to_xml(root, &out, &length);
    else
      plist_to_bin(root, &out, &length);
    PlistFile theirs = parsePlist(std::string_view(out, length));
    free(out);
    plist_free(root);
    ASSERT_EQ(theirs.status, PlistReadStatus::Ok) << theirs.reason;
    EXPECT_TRUE(theirs.dict == dict);
  }
}
