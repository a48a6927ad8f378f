#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/UniqueFd.h"
#include "platform/FileIO.h"
#include "support/TempDir.h"

namespace kd::test {
namespace {

TEST(FileIO, RenamesNeverReplace) {
  struct Case {
    const char* what;
    const char* target;  // "" free, "file", "link" (dangling), "folder"
    bool sourceThere;
    int expected;
  };
  const Case cases[] = {
      {"a free name", "", true, 0},
      {"a file there", "file", true, EEXIST},
      {"a dangling link there", "link", true, EEXIST},
      {"an empty folder there", "folder", true, EEXIST},
      {"no source", "", false, ENOENT},
  };
  for (const Case& c : cases) {
    for (const bool look : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (look ? ", looking first" : ", strict"));
      TempDir tmp;
      if (c.sourceThere) tmp.touch("a/from", "source");
      tmp.mkdir("a");
      const std::string target = tmp / "b/to";
      tmp.mkdir("b");
      if (std::string_view(c.target) == "file") tmp.touch("b/to", "kept");
      if (std::string_view(c.target) == "link") {
        ASSERT_EQ(::symlink("nowhere", target.c_str()), 0);
      }
      if (std::string_view(c.target) == "folder") tmp.mkdir("b/to");
      UniqueFd a(::open((tmp / "a").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      UniqueFd b(::open((tmp / "b").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));

      const int got = look ? fileio::renameNoReplaceOrLook(a.get(), "from", b.get(), "to")
                           : fileio::renameNoReplace(a.get(), "from", b.get(), "to");

      EXPECT_EQ(got, c.expected);
      EXPECT_EQ(exists(tmp / "a/from"), c.sourceThere && got != 0);
      if (got == 0) {
        EXPECT_EQ(readFile(target), "source");
      }
      if (std::string_view(c.target) == "file") {
        EXPECT_EQ(readFile(target), "kept");
      }
      if (std::string_view(c.target) == "link") {
        struct stat st {};
        EXPECT_TRUE(::lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode));
      }
    }
  }
}

TEST(FileIO, SetsTimesOnTheItemItselfAndFlushesFiles) {
  TempDir tmp;
  const std::string file = tmp.touch("file", "bytes");
  ASSERT_EQ(::symlink("file", (tmp / "link").c_str()), 0);
  UniqueFd folder(::open(tmp.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  UniqueFd fd(::open(file.c_str(), O_RDWR | O_CLOEXEC));
  const struct timespec accessed { 1000000000, 5 }, modified{1200000000, 7};
  struct stat st {};

  ASSERT_EQ(fileio::setTimes(fd.get(), accessed, modified), 0);
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, modified.tv_sec);
  EXPECT_EQ(st.st_mtim.tv_nsec, modified.tv_nsec);
  EXPECT_EQ(st.st_atim.tv_sec, accessed.tv_sec);

  // Through the folder, on a link: the link changes, not the file it names.
  ASSERT_EQ(fileio::setTimesAt(folder.get(), "link", accessed, {1300000000, 0}), 0);
  ASSERT_EQ(::lstat((tmp / "link").c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, 1300000000);
  ASSERT_EQ(::stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mtim.tv_sec, modified.tv_sec);
  EXPECT_EQ(fileio::setTimesAt(folder.get(), "missing", accessed, modified), ENOENT);

  EXPECT_EQ(fileio::flushToDevice(fd.get()), 0);
  EXPECT_EQ(fileio::flushFolderToDevice(folder.get()), 0);
  fileio::dropCachedPages(fd.get());  // advice: the file reads the same after it
  char buf[8] = {};
  EXPECT_EQ(::pread(fd.get(), buf, sizeof buf, 0), 5);
  EXPECT_STREQ(buf, "bytes");
  int pipe[2];
  ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
  UniqueFd r(pipe[0]), w(pipe[1]);
  EXPECT_EQ(fileio::flushToDevice(w.get()), EINVAL) << "a pipe has no device";
  EXPECT_EQ(fileio::flushToDevice(-1), EBADF);
}

}  // namespace
}  // namespace kd::test
