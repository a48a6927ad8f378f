// `kd hash`, run as a separate program: its lists pass the coreutils checkers,
// and its own check finds changed, missing and garbled entries.
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace {

// Runs a shell command in `dir`, its output discarded unless it redirects it;
// its exit status, or -1 when it did not exit.
int run(const std::string& dir, const std::string& command) {
  const int status =
      std::system(("cd '" + dir + "' && { " + command + " ; } >/dev/null 2>&1").c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class KdHashTool : public ::testing::Test {
 protected:
  void SetUp() override {
    tmp.touch("A001C003.mov", "frames");
    tmp.touch("empty");
    tmp.touch("with space.wav", "audio");
    // Names the checkers write escaped.
    tmp.touch("back\\slash", "b");
    tmp.touch("new\nline", "n");
    tmp.touch("carriage\rreturn", "r");
  }
  const std::string kd = "'" KD_TOOL_PATH "'";
  kd::test::TempDir tmp;
};

TEST_F(KdHashTool, ListsPassTheCheckersAndItsOwnCheck) {
  const std::string files =
      "A001C003.mov empty 'with space.wav' 'back\\slash' \"$(printf 'new\\nline')\" "
      "\"$(printf 'carriage\\rreturn')\"";
  for (const char* algo : {"md5", "sha1", "sha256", "sha512"}) {
    SCOPED_TRACE(algo);
    const std::string list = std::string(algo) + ".list";
    ASSERT_EQ(run(tmp.path(), kd + " hash --" + algo + " " + files + " > " + list), 0);
    EXPECT_EQ(run(tmp.path(), std::string(algo) + "sum --strict -c " + list), 0);
    EXPECT_EQ(run(tmp.path(), kd + " hash --" + algo + " -c " + list), 0);
    EXPECT_EQ(run(tmp.path(), kd + " hash -c - < " + list), 0);  // told by the digest's length
    // The checkers' own lists check too.
    EXPECT_EQ(run(tmp.path(),
                  std::string(algo) + "sum " + files + " > theirs && " + kd + " hash -c theirs"),
              0);
  }
  // MD5 unless told otherwise; standard input for "-" or no file.
  tmp.touch("x", "abc");
  EXPECT_EQ(run(tmp.path(), kd + " hash x > out && " + kd + " hash < x >> out"), 0);
  EXPECT_EQ(kd::test::readFile(tmp / "out"),
            "900150983cd24fb0d6963f7d28e17f72  x\n900150983cd24fb0d6963f7d28e17f72  -\n");
  // Several kinds from one read: a tagged line each, which its own check takes.
  EXPECT_EQ(run(tmp.path(), kd + " hash --hash md5,xxh64 x > two && " + kd + " hash -c two"), 0);
  EXPECT_EQ(kd::test::readFile(tmp / "two"),
            "MD5 (x) = 900150983cd24fb0d6963f7d28e17f72\nXXH64 (x) = 44bc2cf5ad770999\n");
}

// The xxHash kinds and the tagged form: what kd writes, xxhsum and the
// coreutils checkers read; what they write, kd reads.
TEST_F(KdHashTool, SpeaksXxhsumAndTaggedLists) {
  if (::system("command -v xxhsum >/dev/null") != 0) GTEST_SKIP() << "xxhsum is not installed";
  const std::string files = "A001C003.mov empty 'with space.wav'";
  const struct {
    const char* what;
    std::string command;  // run in the folder; its status must be 0
  } cases[] = {
      {"xxh64 for xxhsum", kd + " hash --hash xxh64 " + files + " > l && xxhsum -c l"},
      {"xxh3 for xxhsum", kd + " hash --hash xxh3 " + files + " > l && xxhsum -c l"},
      {"xxh128 for xxhsum", kd + " hash --hash xxh128 " + files + " > l && xxhsum -c l"},
      {"tagged for sha256sum", kd + " hash --sha256 --tag " + files + " > l && sha256sum -c l"},
      {"xxhsum -H1", "xxhsum -H1 " + files + " > l && " + kd + " hash -c l"},
      {"xxhsum -H2, named", "xxhsum -H2 " + files + " > l.xxh128 && " + kd + " hash -c l.xxh128"},
      {"xxhsum -H2, told", "xxhsum -H2 " + files + " | " + kd + " hash --hash xxh128 -c -"},
      {"xxhsum -H3", "xxhsum -H3 " + files + " | " + kd + " hash -c -"},
      {"xxhsum --tag", "xxhsum --tag -H2 " + files + " | " + kd + " hash -c -"},
      {"BSD tags", "md5sum --tag " + files + " | " + kd + " hash -c -"},
      {"kd copy's list for xxhsum",
       kd + " copy --hash xxh3 A001C003.mov c1 > l && xxhsum -c l && " + kd + " hash -c l"},
      {"an xxh128 list taken as MD5 fails", "xxhsum -H2 empty > l && ! " + kd + " hash -c l"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(run(tmp.path(), c.command), 0);
  }
}

TEST_F(KdHashTool, CheckFailsOnAnyDifference) {
  ASSERT_EQ(run(tmp.path(), kd + " hash --sha1 A001C003.mov empty > list"), 0);
  const std::string good = kd::test::readFile(tmp / "list");
  struct Case {
    const char* name;
    std::string list;
    const char* flag;
    int status;
  };
  const Case cases[] = {
      {"all good", good, "", 0},
      {"changed file", good + "a9993e364706816aba3e25717850c26c9cd0d89d  with space.wav\n", "", 1},
      {"missing file", good + "a9993e364706816aba3e25717850c26c9cd0d89d  gone.mov\n", "", 1},
      {"garbled line", good + "not a checksum line\n", "", 1},
      {"digest of another kind than asked", good, "--md5", 1},
      {"no lines at all", "", "", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tmp.touch("check.list", c.list);
    EXPECT_EQ(run(tmp.path(), kd + " hash " + c.flag + " -c check.list > out"), c.status);
  }
  // Each entry's verdict on standard output.
  tmp.touch("check.list", good + "da39a3ee5e6b4b0d3255bfef95601890afd80709  A001C003.mov\n");
  EXPECT_EQ(run(tmp.path(), kd + " hash -c check.list > out"), 1);
  EXPECT_EQ(kd::test::readFile(tmp / "out"), "A001C003.mov: OK\nempty: OK\nA001C003.mov: FAILED\n");

  // Files that can't be opened or read leave standard output to the digests,
  // although the library prints a read error there.
  EXPECT_EQ(run(tmp.path(), kd + " hash gone.mov . empty > out"), 1);
  EXPECT_EQ(kd::test::readFile(tmp / "out"), "d41d8cd98f00b204e9800998ecf8427e  empty\n");
}

}  // namespace
