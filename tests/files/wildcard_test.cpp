#include <sys/inotify.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "files/WildcardSearch.h"
#include "support/TempDir.h"

namespace {

using Paths = std::vector<std::string>;

TEST(NameMatchesWildcard, FollowsTheComponentRules) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"C0001.MXF", "*.MXF", true},
      {"C0001.mxf", "*.MXF", false},  // case-sensitive
      {".DS_Store", "*", true},       // "*" takes a leading dot
      {"ac", "a?c", false},           // "?" is exactly one character, never none
      {"abbc", "a?c", false},
      {"aXbYb", "a*b", true},
      {"aXbYc", "a*b", false},
      {"mississippi", "m*iss*ppi", true},
      {"1234_5678_20200101_", "????_????_????????_*", true},
      {"123_5678_20200101_x", "????_????_????????_*", false},
      {"\xC3\x89.mov", "?.mov", true},  // one two-byte character
      // Would take exponential time in a naive recursive matcher.
      {std::string(40, 'a'), "*a*a*a*a*a*a*a*a*a*a*a*a*b", false},
  };
  for (const auto& [name, pattern, matches] : cases) {
    EXPECT_EQ(KdFileManager::nameMatchesWildcard(name, pattern), matches)
        << '"' << name << "\" against \"" << pattern << '"';
  }
}

class WildcardTree : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp.touch("Vol/CONTENTS/CLIPS001/C0001/C0001.MXF");
    tmp.mkdir("Vol/CONTENTS/CLIPS001/C0002");
    tmp.mkdir("Vol/CONTENTS/CLIPS002");
    tmp.touch("Vol/.DS_Store");
    tmp.touch("Vol/sub/hs_param.bin");
    ASSERT_EQ(symlink((tmp / "nowhere").c_str(), (vol + "/dangling").c_str()), 0);
    ASSERT_EQ(symlink((vol + "/sub").c_str(), (vol + "/linkdir").c_str()), 0);
  }

  kd::test::TempDir tmp;
  const std::string vol = tmp / "Vol";
};

TEST_F(WildcardTree, ExpandsLevelByLevel) {
  const std::string missing = tmp / "x/????.mov";
  const Paths hsParams{vol + "/sub/hs_param.bin", vol + "/linkdir/hs_param.bin"};
  // Pattern, base, and the matches in any order.
  const std::tuple<std::string, std::optional<std::string>, Paths> cases[] = {
      {vol + "/CONTENTS/CLIPS*/*/*.MXF", {}, {vol + "/CONTENTS/CLIPS001/C0001/C0001.MXF"}},
      {vol + "/CONTENTS/CLIPS*/*/*.mxf", {}, {}},
      // Hidden entries count; a dangling link does not exist; a link to a
      // folder is followed.
      {vol + "/*", {}, {vol + "/CONTENTS", vol + "/.DS_Store", vol + "/sub", vol + "/linkdir"}},
      {vol + "/*/hs_param.bin", {}, hsParams},
      // An absolute pattern with a base is taken from the base, not from "/".
      {"/*/hs_param.bin", vol, hsParams},
      {vol.substr(1) + "/sub/*", {}, {vol + "/sub/hs_param.bin"}},  // no base: from "/"
      {vol + "/*/hs_param.bi?", {}, {}},  // "?" is literal on a level without "*"
      // A literal ".." or "." steps back, once per candidate; no link loop.
      {vol + "/CONTENTS/*/../CLIPS001/*",
       {},
       {vol + "/CONTENTS/CLIPS001/../CLIPS001/C0001", vol + "/CONTENTS/CLIPS001/../CLIPS001/C0002",
        vol + "/CONTENTS/CLIPS002/../CLIPS001/C0001",
        vol + "/CONTENTS/CLIPS002/../CLIPS001/C0002"}},
      {vol + "/sub/./*", {}, {vol + "/sub/./hs_param.bin"}},
      // Without "*" the pattern comes back as it is, existing or not.
      {"x/????.mov", {}, {"x/????.mov"}},
      {"x/????.mov", tmp.path(), {missing}},
  };
  for (const auto& [pattern, base, expected] : cases) {
    SCOPED_TRACE(pattern + " from " + base.value_or("(no base)"));
    for (bool searchSubdirs : {false, true}) {
      EXPECT_THAT(KdFileManager::filesMatchingWildcardPath(pattern, base, searchSubdirs),
                  ::testing::UnorderedElementsAreArray(expected));
    }
  }
}

// A card full of links back into itself: matching never goes through a folder
// it is already inside, and the first-match search reads each folder once.
TEST_F(WildcardTree, LinksBackIntoTheCardCostNothingTwice) {
  const std::string contents = vol + "/CONTENTS";
  for (int i = 0; i < 400; ++i)
    ASSERT_EQ(symlink(".", (contents + "/CLIPS" + std::to_string(1000 + i)).c_str()), 0);
  ASSERT_EQ(symlink("..", (contents + "/CLIPS001/C0002/up").c_str()), 0);
  EXPECT_THAT(KdFileManager::filesMatchingWildcardPath(contents + "/CLIPS*/*/*.MXF"),
              ::testing::ElementsAre(contents + "/CLIPS001/C0001/C0001.MXF"));
  // A link to a folder that is not an ancestor is still followed.
  EXPECT_THAT(
      KdFileManager::filesMatchingWildcardPath(vol + "/*/hs_param.bin"),
      ::testing::UnorderedElementsAre(vol + "/sub/hs_param.bin", vol + "/linkdir/hs_param.bin"));

  kd::WildcardSearch search;
  EXPECT_TRUE(search.anyMatch(contents + "/CLIPS*/*/*.MXF"));
  EXPECT_FALSE(search.anyMatch(contents + "/CLIPS*/*/*.mxf"));
  EXPECT_FALSE(search.anyMatch(contents + "/CLIPS*/*/*/*/*.mxf"));
  // CONTENTS, CLIPS001, CLIPS002, C0001, C0002 and the card below "up": each once.
  EXPECT_LE(search.listingsRead(), 6u);
  EXPECT_TRUE(search.anyMatch(vol + "/*/hs_param.bin"));
  EXPECT_FALSE(search.anyMatch(vol + "/*/missing.bin"));
  EXPECT_LE(search.listingsRead(), 8u);
}

TEST_F(WildcardTree, DecodeFallsBackToTheJoinedPattern) {
  EXPECT_EQ(KdFileManager::decodeWildcardPath("/*/hs_param.bin", vol),
            KdFileManager::filesMatchingWildcardPath("/*/hs_param.bin", vol).front());
  EXPECT_EQ(KdFileManager::decodeWildcardPath("/*/nothing.bin", vol), vol + "/*/nothing.bin");
  EXPECT_EQ(KdFileManager::decodeWildcardPath(vol + "/*/nothing.bin", std::nullopt), std::nullopt);
}

TEST_F(WildcardTree, ListsEachCandidateFolderOncePerLevel) {
  const std::string clips = vol + "/CONTENTS/CLIPS00";
  const Paths listed{vol + "/CONTENTS", clips + "1", clips + "2", clips + "1/C0001",
                     clips + "1/C0002"};
  // A listing opens its folder once. Closes are watched too: the kernel
  // merges identical events that follow each other, and a close between two
  // opens keeps them apart.
  kd::UniqueFd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  std::map<int, std::string> byWatch;
  for (const std::string& f : listed)
    byWatch[inotify_add_watch(fd.get(), f.c_str(), IN_OPEN | IN_CLOSE_NOWRITE)] = f;
  if (!fd || byWatch.contains(-1)) GTEST_SKIP() << "inotify is not available here";
  KdFileManager::filesMatchingWildcardPath(vol + "/CONTENTS/CLIPS*/*/*.MXF");
  std::map<std::string, int> opens;
  alignas(inotify_event) char buf[16384];
  for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) > 0;) {
    for (char* p = buf; p < buf + n;) {
      const auto* ev = reinterpret_cast<const inotify_event*>(p);
      // Events without a name concern the watched folder itself.
      if ((ev->mask & IN_OPEN) && ev->len == 0) ++opens[byWatch[ev->wd]];
      p += sizeof(inotify_event) + ev->len;
    }
  }
  for (const std::string& folder : listed) EXPECT_EQ(opens[folder], 1) << folder;
}

}  // namespace
