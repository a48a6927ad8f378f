// kd size, label and xattr, run as the built tool.
#include <sys/xattr.h>

#include "FilesFixture.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {
namespace {

struct Result {
  std::string out;
  int status;
};

// Runs kd with the arguments; standard output only (errors to the null device).
Result kd(std::vector<std::string> args) {
  std::vector<std::string> sh = {"-c", "\"$0\" \"$@\" 2>/dev/null; echo \"|$?\"", KD_TOOL_PATH};
  sh.insert(sh.end(), args.begin(), args.end());
  std::string out = KdTaskEx::stringFromTask("/bin/sh", sh, 10.0);
  auto bar = out.rfind('|');
  if (bar == std::string::npos) return {out, -1};
  return {out.substr(0, bar), std::atoi(out.c_str() + bar + 1)};
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
      {{"label", d / "missing"}, "", 1, false},
      {{"label", file, "4"}, "4\tblue\n", 0, true},
      {{"label", file}, "4\tblue\n", 0, true},
      {{"xattr", file, "reel", "A001"}, "", 0, true},
      {{"xattr", file, "reel"}, "A001\n", 0, true},
      {{"xattr", file, "none"}, "", 1, true},
      {{"xattr", d / "missing"}, "", 1, false},
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
