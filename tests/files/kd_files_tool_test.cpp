// kd size, label, xattr and the file operations, run as the built tool.
#include <sys/xattr.h>

#include "FilesFixture.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

struct Result {
  std::string out;
  int status;
};

// Runs kd with the arguments; standard output, with standard error too when
// `withErrors` (else errors go to the null device).
Result kd(std::vector<std::string> args, bool withErrors = false) {
  const std::string errors = withErrors ? "2>&1" : "2>/dev/null";
  std::vector<std::string> sh = {"-c", "\"$0\" \"$@\" " + errors + "; echo \"|$?\"", KD_TOOL_PATH};
  sh.insert(sh.end(), args.begin(), args.end());
  std::string out = KdTaskEx::stringFromTask("/bin/sh", sh, 10.0);
  auto bar = out.rfind('|');
  if (bar == std::string::npos) return {out, -1};
  return {out.substr(0, bar), std::atoi(out.c_str() + bar + 1)};
}

TEST(KdFileCommands, CopyMoveCreateRemoveAndArchives) {
  TempDir d;
  d.touch("card/clip.mov", "footage");
  d.touch("taken", "mine");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string says;  // part of what kd writes; "" for nothing at all
  } cases[] = {
      {{"cp", d / "card", d / "copy"}, 0, ""},
      {{"cp", d / "card/clip.mov", d / "taken"}, 1, "File exists"},
      {{"cp", "--no-auth", d / "missing", d / "x"}, 1, "No such file or directory"},
      {{"mv", d / "copy", d / "moved"}, 0, ""},
      {{"mv", d / "moved/clip.mov", d / "taken"}, 1, "File exists"},
      {{"mkdir", d / "a/b", d / "c"}, 0, ""},
      {{"mkdir", d / "taken/sub"}, 1, "Not a directory"},
      {{"zip", d / "card", d / "card.zip"}, 0, ""},
      {{"zip", "--no-parent", d / "card", d / "flat.zip"}, 0, ""},
      {{"unzip", d / "card.zip", d / "out"}, 0, ""},
      {{"unzip", d / "flat.zip", d / "flat"}, 0, ""},
      {{"unzip", d / "taken", d / "bad"}, 1, "kd unzip: " + (d / "taken") + ": "},
      {{"rm", d / "a", d / "missing"}, 0, ""},
  };
  for (const auto& c : cases) {
    Result r = kd(c.args, true);
    EXPECT_EQ(r.status, c.status) << c.args[0] << ' ' << c.args[1] << ": " << r.out;
    if (c.says.empty())
      EXPECT_EQ(r.out, "") << c.args[0] << ' ' << c.args[1];
    else
      EXPECT_NE(r.out.find(c.says), std::string::npos) << r.out;
  }
  EXPECT_EQ(readFile(d / "moved/clip.mov"), "footage");
  EXPECT_EQ(readFile(d / "taken"), "mine");
  EXPECT_EQ(readFile(d / "out/card/clip.mov"), "footage");
  EXPECT_EQ(readFile(d / "flat/clip.mov"), "footage");
  EXPECT_TRUE(KdFileManager::isDirectoryAtPath(d / "c"));
  EXPECT_FALSE(KdFileManager::fileExistsAtPath(d / "a"));
  EXPECT_FALSE(KdFileManager::fileExistsAtPath(d / "bad"));
}

TEST(KdFileCommands, SizeLabelXattr) {
  TempDir d;
  d.touch("card/a", std::string(1536, 'x'));
  d.touch("card/sub/b", "0123456789");
  const std::string file = d / "card/a";
  const bool attrs = ::setxattr(file.c_str(), "user.kd-probe", "1", 1, 0) == 0;
  ::removexattr(file.c_str(), "user.kd-probe");
  struct Case {
    std::vector<std::string> args;
    std::string out;
    int status;
    bool needsAttrs;
  };
  const Case cases[] = {
      {{"size", d / "card", file},
       "1546\t1.51 KB\t" + (d / "card") + "\n1536\t1.50 KB\t" + file + "\n",
       0,
       false},
      {{"size", d / "missing", file}, "1536\t1.50 KB\t" + file + "\n", 1, false},
      {{"label", file}, "0\tnone\n", 0, false},
      {{"label", file, "8"}, "", 2, false},
      {{"label", file, "4"}, "4\tblue\n", 0, true},
      {{"label", file}, "4\tblue\n", 0, true},
      {{"xattr", file, "reel", "A001"}, "", 0, true},
      {{"xattr", file, "reel"}, "A001\n", 0, true},
      {{"xattr", file, "none"}, "", 1, true},
  };
  for (const auto& c : cases) {
    if (c.needsAttrs && !attrs) continue;
    Result r = kd(c.args);
    EXPECT_EQ(r.out, c.out) << c.args[0] << ' ' << c.args.size();
    EXPECT_EQ(r.status, c.status) << c.args[0] << ' ' << c.args.size();
  }
  if (attrs) {
    std::string names = kd({"xattr", file}).out;
    EXPECT_NE(names.find("reel\n"), std::string::npos) << names;
  }
}

}  // namespace
}  // namespace kd::test
