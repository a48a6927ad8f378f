// kd's rules for scripts: data on standard output, messages on standard error,
// a write error fails the command, `kd run` statuses, NUL-terminated records.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

struct Result {
  int status = -1;  // exit status, or -1 when kd did not exit normally
  std::string out;
  std::string err;
};

// Runs kd with a home of its own in `cwd`; standard output goes to `outPath`
// (a file in the temporary folder when empty).
Result runKd(const kd::test::TempDir& dir, std::vector<std::string> args,
             const std::string& cwd = "/", std::string outPath = "") {
  const std::string errPath = dir / "stderr";
  const bool captureOut = outPath.empty();
  if (captureOut) outPath = dir / "stdout";
  args.insert(args.begin(), KD_TOOL_PATH);
  const std::vector<std::string> env{"HOME=" + dir.mkdir("home"), "PATH=/usr/bin:/bin"};
  Result result;
  result.status = kd::test::run(args, {.env = env, .cwd = cwd, .out = outPath, .err = errPath});
  if (captureOut) result.out = kd::test::readFile(outPath);
  result.err = kd::test::readFile(errPath);
  return result;
}

}  // namespace

TEST(KdToolOutput, VersionAndUsage) {
  kd::test::TempDir dir;
  Result version = runKd(dir, {"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out, std::string("kd ") + KD_VERSION + "\n");
  EXPECT_EQ(version.err, "");

  Result usage = runKd(dir, {"match"});
  EXPECT_EQ(usage.status, 2);
  EXPECT_EQ(usage.out, "");
  EXPECT_NE(usage.err.find("kd: "), std::string::npos) << usage.err;
}

TEST(KdToolOutput, DataThatCannotBeWrittenFailsTheCommand) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  kd::test::TempDir dir;
  for (const char* command : {"paths", "version"}) {
    Result r = runKd(dir, {command}, "/", "/dev/full");
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_EQ(r.err, "kd: write error\n") << command;
  }
}

TEST(KdToolOutput, RunStatusesAndMessagesOnStandardError) {
  kd::test::TempDir dir;
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;
  } cases[] = {
      {{"run", "--", "/bin/sh", "-c", "echo out; exit 3"}, 0, "out\n", ""},
      {{"run", "--status", "--", "/bin/sh", "-c", "echo out; exit 3"}, 3, "out\n", ""},
      {{"run", "--status", "--", "/bin/sh", "-c", "kill -KILL $$"}, 128 + SIGKILL, "", ""},
      {{"run", "--status", "--", "/bin/true"}, 0, "", ""},
      // A name without '/' is looked for in PATH (/usr/bin:/bin here).
      {{"run", "--status", "--", "sh", "-c", "echo found; exit 4"}, 4, "found\n", ""},
      {{"run", "--", "/nonexistent/tool"},
       1,
       "",
       "kd run: /nonexistent/tool: not executable (No such file or directory)\n"},
      {{"run", "--", "no-such-tool-here"}, 1, "", "kd run: no-such-tool-here: not found in PATH\n"},
      {{"run", "--", "/tmp"}, 1, "", "kd run: /tmp: not executable (Is a directory)\n"},
      {{"run", "--timeout", "1", "--", "/bin/sh", "-c", "echo partial; exec sleep 30"},
       124,
       "partial\n",
       "kd run: /bin/sh: timed out after 1 s, terminated\n"},
  };
  for (const Case& c : cases) {
    Result r = runKd(dir, c.args);
    const std::string what = c.args.back();
    EXPECT_EQ(r.status, c.status) << what << "\n" << r.err;
    EXPECT_EQ(r.out, c.out) << what;
    EXPECT_EQ(r.err, c.err) << what;
  }
}

// A failure is told once, in kd's words: not in the library's wording for
// another operation, and without the log's own troubles (as root with nobody
// at the console there is no user log to write to).
TEST(KdToolOutput, FailuresAreToldOnceInPlainWords) {
  kd::test::TempDir dir;
  dir.touch("file");
  const std::string missing = dir / "missing", file = dir / "file";
  const std::string list = dir.touch("list", std::string(32, '0') + "  " + missing + "\n");
  struct Case {
    std::vector<std::string> args;
    std::string out, err;
  } cases[] = {
      {{"hash", missing}, "", "kd hash: " + missing + ": No such file or directory\n"},
      {{"hash", "--sha256", dir.path()}, "", "kd hash: " + dir.path() + ": Is a directory\n"},
      {{"hash", "--check", list},
       missing + ": FAILED open or read\n",
       "kd hash: " + missing +
           ": No such file or directory\nkd hash: 1 file(s) could not be read\n"},
      {{"mkdir", "--no-auth", file + "/sub"}, "", "kd mkdir: " + file + "/sub: Not a directory\n"},
      {{"trash", "--no-auth", dir.path() + "/.."},
       "",
       "kd trash: " + dir.path() +
           "/..: a path ending in \".\" or \"..\" names a folder by another name; name the "
           "folder itself\n"},
      {{"size", missing}, "", "kd size: " + missing + ": No such file or directory\n"},
      {{"label", missing}, "", "kd label: " + missing + ": No such file or directory\n"},
      {{"xattr", missing}, "", "kd xattr: " + missing + ": No such file or directory\n"},
      {{"info", missing}, "", "kd info: " + missing + ": nothing is mounted there\n"},
      // The library also puts its refusal in the system log; kd tells it once.
      {{"mv", "--no-auth", "/proc/kd-none", dir / "moved"},
       "",
       "kd mv: /proc/kd-none to " + dir.path() + "/moved: a system folder is never changed\n"},
  };
  for (const Case& c : cases) {
    Result r = runKd(dir, c.args);
    EXPECT_EQ(r.status, 1) << c.args[0];
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.err, c.err) << c.args[0];
  }
}

TEST(KdToolOutput, RelativeMatchStartsInTheCurrentFolderAndNullEndsRecords) {
  kd::test::TempDir dir;
  const std::string cwd = dir.mkdir("cwd");
  dir.touch("cwd/a\nb.MXF");
  dir.touch("cwd/c.MXF");
  dir.touch("cwd/d.txt");

  Result r = runKd(dir, {"match", "--null", "*.MXF"}, cwd);
  EXPECT_EQ(r.status, 0) << r.err;
  std::set<std::string> records;
  for (std::size_t start = 0, end; (end = r.out.find('\0', start)) != std::string::npos;
       start = end + 1)
    records.insert(r.out.substr(start, end - start));
  EXPECT_EQ(records, (std::set<std::string>{cwd + "/a\nb.MXF", cwd + "/c.MXF"}));
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\0'), 2);

  Result lines = runKd(dir, {"match", "d.*"}, cwd);
  EXPECT_EQ(lines.out, cwd + "/d.txt\n");
  Result absolute = runKd(dir, {"match", cwd + "/d.*"}, "/");
  EXPECT_EQ(absolute.out, cwd + "/d.txt\n");
}
