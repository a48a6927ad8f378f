#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "support/ChildMode.h"
#include "support/TempDir.h"

extern char** environ;

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

// Counts how often watched folders are opened (each listing opens its folder
// once). Close events are watched too: the kernel merges identical events
// that follow each other, and a close between two opens keeps them apart.
class FolderOpenCounter {
 public:
  FolderOpenCounter() : fd_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}
  bool ok() const { return fd_.valid(); }
  void watch(const std::string& folder) {
    int wd = inotify_add_watch(fd_.get(), folder.c_str(), IN_OPEN | IN_CLOSE_NOWRITE);
    if (wd >= 0) folders_[wd] = folder;
  }
  std::map<std::string, int> opens() {
    std::map<std::string, int> counts;
    for (const auto& [wd, folder] : folders_) counts[folder] = 0;
    alignas(inotify_event) char buf[16384];
    ssize_t n;
    while ((n = read(fd_.get(), buf, sizeof buf)) > 0) {
      for (char* p = buf; p < buf + n;) {
        const auto* ev = reinterpret_cast<const inotify_event*>(p);
        // Events without a name concern the watched folder itself.
        if ((ev->mask & IN_OPEN) && ev->len == 0) ++counts[folders_[ev->wd]];
        p += sizeof(inotify_event) + ev->len;
      }
    }
    return counts;
  }

 private:
  kd::UniqueFd fd_;
  std::map<int, std::string> folders_;
};

TEST_F(WildcardTree, ListsEachCandidateFolderOncePerLevel) {
  FolderOpenCounter counter;
  if (!counter.ok()) GTEST_SKIP() << "inotify is not available here";
  const std::string root = tmp.mkdir("wide");
  std::map<std::string, int> expected{{root, 1}};
  counter.watch(root);
  for (const char* d : {"d1", "d2", "d3"}) {
    for (const char* e : {"e1", "e2"}) {
      const std::string leaf = tmp.touch("wide/" + std::string(d) + "/" + e + "/x.MXF");
      const std::string folder = leaf.substr(0, leaf.rfind('/'));
      counter.watch(folder);
      expected[folder] = 1;
    }
    counter.watch(root + "/" + d);
    expected[root + "/" + d] = 1;
  }
  EXPECT_EQ(KdFileManager::filesMatchingWildcardPath(root + "/*/*/*.MXF").size(), 6u);
  EXPECT_EQ(counter.opens(), expected);
}

// Child side of the unreadable-folder test: drops root (which reads
// everything) for the nobody user, then prints each expansion on one line.
int expandUnprivileged(const std::vector<std::string>& args) {
  if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                         setresuid(65534, 65534, 65534) != 0)) {
    std::printf("cannot drop privileges\n");
    return 3;
  }
  if (access(args[0].c_str(), X_OK) != 0) {
    std::printf("cannot reach the test folder\n");
    return 3;
  }
  for (std::size_t i = 1; i < args.size(); ++i) {
    std::string line;
    for (const std::string& p : KdFileManager::filesMatchingWildcardPath(args[0] + "/" + args[i]))
      line += p.substr(args[0].size()) + " ";
    std::printf("%s\n", line.c_str());
  }
  return 0;
}
KD_CHILD_MODE("expand-unprivileged", expandUnprivileged);

// Runs this program as a child in `mode`; returns its exit status and output.
std::pair<int, std::string> runChild(const std::string& mode,
                                     const std::vector<std::string>& args) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return {-1, ""};
  kd::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
  std::vector<std::string> argv{kd::test::selfExecutable(), "--kd-child", mode};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> cargv;
  for (std::string& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, cargv[0], &actions, nullptr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  writeEnd.reset();
  if (rc != 0) return {-1, ""};
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = kd::retryOnEintr([&] { return read(readEnd.get(), buf, sizeof buf); })) > 0)
    out.append(buf, static_cast<std::size_t>(n));
  int status = 0;
  kd::retryOnEintr([&] { return waitpid(pid, &status, 0); });
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

TEST_F(WildcardTree, UnreadableFoldersContributeNothing) {
  // Readable by everyone on the way down, except "locked", which can be
  // passed through but not listed.
  ASSERT_EQ(chmod(tmp.path().c_str(), 0755), 0);
  const std::string top = tmp.mkdir("perm");
  tmp.touch("perm/open/f");
  tmp.touch("perm/locked/f");
  ASSERT_EQ(chmod((top + "/open").c_str(), 0755), 0);
  ASSERT_EQ(chmod((top + "/locked").c_str(), 0311), 0);

  auto [status, out] = runChild("expand-unprivileged", {top, "locked/*", "*/f", "*/*"});
  if (status == 3) GTEST_SKIP() << "the child cannot run unprivileged: " << out;
  ASSERT_EQ(status, 0) << out;
  // Literal levels still reach through the locked folder; listing levels do not.
  std::vector<std::string> lines;
  for (std::size_t start = 0, nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
    lines.push_back(out.substr(start, nl - start));
  ASSERT_EQ(lines.size(), 3u) << out;
  EXPECT_EQ(lines[0], "");
  EXPECT_THAT(lines[1], ::testing::AnyOf("/open/f /locked/f ", "/locked/f /open/f "));
  EXPECT_EQ(lines[2], "/open/f ");
}

}  // namespace
