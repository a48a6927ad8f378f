#include <dirent.h>
#include <grp.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "support/TempDir.h"

namespace {

using Paths = std::vector<std::string>;

// Entry names of `folder` in the order the file system lists them.
Paths listing(const std::string& folder) {
  Paths names;
  if (DIR* d = opendir(folder.c_str())) {
    while (const dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name != "." && name != "..") names.push_back(name);
    }
    closedir(d);
  }
  return names;
}

TEST(NameMatchesWildcard, FollowsTheComponentRules) {
  const std::string manyA(40, 'a');
  struct Case {
    std::string name, pattern;
    bool matches;
  } cases[] = {
      {"C0001.MXF", "*.MXF", true},
      {"C0001.mxf", "*.MXF", false},  // case-sensitive
      {".DS_Store", "*", true},       // "*" takes a leading dot
      {".DS_Store", "*Store", true},
      {"", "*", true},
      {"", "?", false},
      {"abc", "a?c", true},
      {"ac", "a?c", false},  // "?" is exactly one character, never none
      {"abbc", "a?c", false},
      {"abc", "ABC", false},
      {"a.b", "a?b", true},
      {"aXbYb", "a*b", true},
      {"aXbYc", "a*b", false},
      {"mississippi", "m*iss*ppi", true},
      {"mississippi", "*sip*", true},
      {"abcd", "*c", false},
      {"1234_5678_20200101_x", "????_????_????????_*", true},
      {"1234_5678_20200101_", "????_????_????????_*", true},
      {"123_5678_20200101_x", "????_????_????????_*", false},
      {"1234_5678_2020010_x", "????_????_????????_*", false},
      {"\xC3\x89.mov", "?.mov", true},  // one two-byte character
      {"\xC3\x89.mov", "??.mov", false},
      // Would take exponential time in a naive recursive matcher.
      {manyA, "*a*a*a*a*a*a*a*a*a*a*a*a*b", false},
      {manyA + "b", "*a*a*a*a*a*a*a*a*a*a*a*a*b", true},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(KdFileManager::nameMatchesWildcard(c.name, c.pattern), c.matches)
        << '"' << c.name << "\" against \"" << c.pattern << '"';
  }
}

class WildcardTree : public ::testing::Test {
 protected:
  void SetUp() override {
    vol = tmp.mkdir("Vol");
    tmp.touch("Vol/CONTENTS/CLIPS001/C0001/C0001.MXF");
    tmp.touch("Vol/CONTENTS/CLIPS001/C0002/C0002.mxf");
    tmp.mkdir("Vol/CONTENTS/CLIPS002");
    tmp.touch("Vol/.DS_Store");
    tmp.touch("Vol/sub/hs_param.bin");
    tmp.touch("Vol/abc/file");
    ASSERT_EQ(symlink((tmp / "nowhere").c_str(), (vol + "/dangling").c_str()), 0);
    ASSERT_EQ(symlink((vol + "/sub").c_str(), (vol + "/linkdir").c_str()), 0);
  }

  kd::test::TempDir tmp;
  std::string vol;
};

TEST_F(WildcardTree, ExpandsLevelByLevel) {
  const std::string missing = tmp / "x/????.mov";
  struct Case {
    std::string pattern;
    std::optional<std::string> base;
    Paths expected;  // compared without regard to order
  } cases[] = {
      {vol + "/CONTENTS/CLIPS*/*/*.MXF", {}, {vol + "/CONTENTS/CLIPS001/C0001/C0001.MXF"}},
      {vol + "/CONTENTS/CLIPS*/*/*.mxf", {}, {vol + "/CONTENTS/CLIPS001/C0002/C0002.mxf"}},
      {vol + "/CONTENTS/CLIPS*/*/*.Mxf", {}, {}},
      // Hidden entries count; a dangling link does not exist; a link to a
      // folder is followed.
      {vol + "/*",
       {},
       {vol + "/CONTENTS", vol + "/.DS_Store", vol + "/sub", vol + "/abc", vol + "/linkdir"}},
      {vol + "/.DS*", {}, {vol + "/.DS_Store"}},
      {vol + "/*/hs_param.bin", {}, {vol + "/sub/hs_param.bin", vol + "/linkdir/hs_param.bin"}},
      // An absolute pattern with a base is taken from the base, not from "/".
      {"/*/hs_param.bin", vol, {vol + "/sub/hs_param.bin", vol + "/linkdir/hs_param.bin"}},
      {"CONTENTS/*", vol, {vol + "/CONTENTS/CLIPS001", vol + "/CONTENTS/CLIPS002"}},
      // Without a base a relative pattern starts at "/".
      {vol.substr(1) + "/sub/*", {}, {vol + "/sub/hs_param.bin"}},
      // "?" is literal on a level without "*".
      {vol + "/a?c/*", {}, {}},
      {vol + "/*/fil?", {}, {}},
      {vol + "/*/file", {}, {vol + "/abc/file"}},
      {vol + "/missing/*", {}, {}},
      // Without "*" the pattern comes back as it is, existing or not.
      {missing, {}, {missing}},
      {"x/????.mov", {}, {"x/????.mov"}},
      {"x/????.mov", tmp.path(), {missing}},
      {vol + "/a?c", {}, {vol + "/a?c"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.pattern + " from " + c.base.value_or("(no base)"));
    for (bool searchSubdirs : {false, true}) {
      EXPECT_THAT(KdFileManager::filesMatchingWildcardPath(c.pattern, c.base, searchSubdirs),
                  ::testing::UnorderedElementsAreArray(c.expected))
          << "searchSubdirs " << searchSubdirs;
    }
  }
}

TEST_F(WildcardTree, KeepsParentOrderThenListingOrderUnsorted) {
  // Created out of name order so that sorting would show.
  for (const char* parent : {"p/m", "p/z", "p/a"}) {
    for (const char* child : {"/k", "/b", "/y", "/c"}) tmp.mkdir(std::string(parent) + child);
  }
  Paths expected;
  for (const std::string& parent : listing(tmp / "p")) {
    for (const std::string& child : listing(tmp / "p/" + parent))
      expected.push_back(tmp / "p/" + parent + "/" + child);
  }
  EXPECT_EQ(KdFileManager::filesMatchingWildcardPath(tmp / "p/*/*"), expected);
}

TEST_F(WildcardTree, DecodeFallsBackToTheJoinedPattern) {
  EXPECT_EQ(KdFileManager::decodeWildcardPath("/*/hs_param.bin", vol),
            KdFileManager::filesMatchingWildcardPath("/*/hs_param.bin", vol).front());
  EXPECT_EQ(KdFileManager::decodeWildcardPath("*/nothing.bin", vol), vol + "/*/nothing.bin");
  EXPECT_EQ(KdFileManager::decodeWildcardPath("/*/nothing.bin", vol), vol + "/*/nothing.bin");
  EXPECT_EQ(KdFileManager::decodeWildcardPath(vol + "/*/nothing.bin", std::nullopt), std::nullopt);
  EXPECT_EQ(KdFileManager::decodeWildcardPath(vol + "/sub/*", std::nullopt),
            vol + "/sub/hs_param.bin");
}

// Counts the opens of each watched folder (a listing opens its folder once).
// Close events are watched too: the kernel merges identical events that
// follow each other, and a close between two opens keeps them apart.
std::optional<std::map<std::string, int>> countOpens(const Paths& folders,
                                                     const std::function<void()>& action) {
  kd::UniqueFd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  std::map<int, std::string> byWatch;
  for (const std::string& f : folders)
    byWatch[inotify_add_watch(fd.get(), f.c_str(), IN_OPEN | IN_CLOSE_NOWRITE)] = f;
  if (!fd || byWatch.contains(-1)) return std::nullopt;
  action();
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
  return opens;
}

TEST_F(WildcardTree, ListsEachCandidateFolderOncePerLevel) {
  const std::string clips = vol + "/CONTENTS/CLIPS00";
  const Paths listed{vol + "/CONTENTS", clips + "1", clips + "2", clips + "1/C0001",
                     clips + "1/C0002"};
  auto opens = countOpens(
      listed, [&] { KdFileManager::filesMatchingWildcardPath(vol + "/CONTENTS/CLIPS*/*/*.MXF"); });
  if (!opens) GTEST_SKIP() << "inotify is not available here";
  for (const std::string& folder : listed) EXPECT_EQ((*opens)[folder], 1) << folder;
}

// Runs `check` in a forked child that has dropped root (which reads every
// folder) for the nobody user; the child's exit status is the check's
// result, or 3 when it could not drop.
int runUnprivileged(const std::function<bool()>& check) {
  pid_t pid = fork();
  if (pid == 0) {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                           setresuid(65534, 65534, 65534) != 0))
      _exit(3);
    _exit(check() ? 0 : 1);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST_F(WildcardTree, UnreadableFoldersContributeNothing) {
  // "locked" can be passed through but not listed.
  umask(022);  // folders the nobody user can pass through
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  tmp.touch("perm/open/f");
  tmp.touch("perm/locked/f");
  const std::string top = tmp / "perm";
  ASSERT_EQ(chmod((top + "/locked").c_str(), 0311), 0);
  const int status = runUnprivileged([&] {
    using ::testing::UnorderedElementsAre;
    auto expand = [&](const char* p) { return KdFileManager::filesMatchingWildcardPath(top + p); };
    // Literal levels still reach through the locked folder; listing levels do not.
    return expand("/locked/*").empty() &&
           ::testing::Matches(UnorderedElementsAre(top + "/open/f", top + "/locked/f"))(
               expand("/*/f")) &&
           expand("/*/*") == Paths{top + "/open/f"};
  });
  if (status == 3) GTEST_SKIP() << "cannot switch to the nobody user (uid 65534) here";
  EXPECT_EQ(status, 0);
}

}  // namespace
