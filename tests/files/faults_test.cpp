// Whole-file hashes when the source fails under them, tried through `kd hash`
// with a read fault preloaded (tests/files/shim): a read error must give no
// digest and a failing exit; a file deleted or cut while it is read gives the
// digest of what the file holds, never one of bytes it no longer has.
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace {

struct ToolRun {
  int status = -1;  // the exit status, or -1 when the program did not exit
  std::string out, err;
};

// Runs `kd hash` on `file` with a fault of `kind` after `after` bytes.
ToolRun hashWithFault(const kd::test::TempDir& tmp, const std::string& algorithm,
                      const std::string& file, const std::string& kind, long after) {
  // A sanitized kd must accept the fault library loaded before its runtime.
  const std::string command =
      "cd '" + tmp.path() + "' && ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD='" +
      KD_READ_FAULT_SHIM + "' KD_FAULT=" + kind + " KD_FAULT_PATH='" + file +
      "' KD_FAULT_AFTER=" + std::to_string(after) + " timeout 60 '" KD_TOOL_PATH "' hash --hash " +
      algorithm + " '" + file + "' >out 2>err";
  const int status = std::system(command.c_str());
  ToolRun r;
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.out = kd::test::readFile(tmp / "out");
  r.err = kd::test::readFile(tmp / "err");
  return r;
}

std::string digestOf(const kd::test::TempDir& tmp, const std::string& algorithm,
                     const std::string& file) {
  const std::string command = "cd '" + tmp.path() + "' && " + algorithm + "sum '" + file + "' >sum";
  if (std::system(command.c_str()) != 0) return "";
  const std::string line = kd::test::readFile(tmp / "sum");
  return line.substr(0, line.find(' '));
}

const std::string kClip(3 * 1024 * 1024 + 123, 'c');

TEST(HashFaults, AReadErrorGivesNoDigestAndFails) {
  kd::test::TempDir tmp;
  for (const char* algorithm : {"md5", "sha1", "sha256", "sha512", "xxh64", "xxh128"}) {
    for (long after : {0L, 65536L, 1048576L, 3L * 1024 * 1024}) {
      SCOPED_TRACE(std::string(algorithm) + " after " + std::to_string(after));
      tmp.touch("clip.mov", kClip);
      const ToolRun r = hashWithFault(tmp, algorithm, tmp / "clip.mov", "eio", after);
      EXPECT_NE(r.status, 0);
      EXPECT_NE(r.status, -1) << "killed or hung";
      EXPECT_EQ(r.out, "") << "a digest was printed for a file that could not be read";
      const std::string said = "kd hash: " + tmp / "clip.mov" + ": Input/output error";
      EXPECT_NE(r.err.find(said), std::string::npos) << r.err;
      EXPECT_EQ(kd::test::readFile(tmp / "clip.mov"), kClip);  // the source is untouched
    }
  }
}

TEST(HashFaults, AFileDeletedOrCutWhileReadGivesTheDigestOfWhatItHolds) {
  kd::test::TempDir tmp;
  const std::string whole = digestOf(tmp, "sha256", tmp.touch("whole", kClip));
  ASSERT_EQ(whole.size(), 64u);
  // Deleted: the open file still holds every byte, and they are hashed.
  tmp.touch("clip.mov", kClip);
  ToolRun r = hashWithFault(tmp, "sha256", tmp / "clip.mov", "unlink", 1048576);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, 64), whole);
  // Cut at 1 MiB: what is hashed is what the file now holds.
  tmp.touch("clip.mov", kClip);
  r = hashWithFault(tmp, "sha256", tmp / "clip.mov", "shrink", 1048576);
  ASSERT_EQ(kd::test::readFile(tmp / "clip.mov").size(), 1048576u);
  if (r.status == 0) {
    EXPECT_EQ(r.out.substr(0, 64), digestOf(tmp, "sha256", tmp / "clip.mov"));
  } else {
    EXPECT_EQ(r.out, "");
  }
  EXPECT_NE(r.out.substr(0, 64), whole);
}

}  // namespace
