#include "common/Path.h"

#include <gtest/gtest.h>

using namespace kd;

TEST(Path, JoinsSplitsAndNames) {
  EXPECT_EQ(path::append("/tmp", "x"), "/tmp/x");
  EXPECT_EQ(path::append("/tmp/", "x"), "/tmp/x");
  EXPECT_EQ(path::append("/", "x"), "/x");
  EXPECT_EQ(path::append("", "x"), "x");
  EXPECT_EQ(path::append("/Vol", "/CONTENTS/"), "/Vol/CONTENTS");
  EXPECT_EQ(path::append("/a", ""), "/a");
  EXPECT_FALSE(path::append(std::optional<std::string>{}, "x"));

  using V = std::vector<std::string>;
  EXPECT_EQ(path::components("/Vol/*/x"), (V{"/", "Vol", "*", "x"}));
  EXPECT_EQ(path::components("a//b/"), (V{"a", "b", "/"}));
  EXPECT_EQ(path::components("/"), (V{"/"}));
  EXPECT_EQ(path::components(""), V{});

  EXPECT_EQ(path::lastComponent("/Volumes/CARD/"), "CARD");
  EXPECT_EQ(path::lastComponent("/"), "/");
  EXPECT_EQ(path::extension("A001.RDM"), "RDM");
  EXPECT_EQ(path::extension("/x/.DS_Store"), "");
  EXPECT_EQ(path::extension("/x.y/z"), "");
  EXPECT_EQ(path::deletingLastComponent("/a/b"), "/a");
  EXPECT_EQ(path::deletingLastComponent("/a"), "/");
}
