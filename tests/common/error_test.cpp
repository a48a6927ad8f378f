#include "common/Error.h"

#include <gtest/gtest.h>

#include <cerrno>

using kd::Error;

// The words a failure reaches the user with, alone and said of something larger.
TEST(Error, MessageWordsCodeAndContext) {
  struct Case {
    Error error;
    const char* outer;  // for within(); null: the error as it is
    const char* shown;
  };
  const Case cases[] = {
      {Error{EACCES}, nullptr, "Permission denied"},
      {Error{ENOENT, "/a/b"}, nullptr, "/a/b: No such file or directory"},
      {Error::described("no source"), nullptr, "no source"},
      {Error{}, nullptr, ""},
      {Error{EEXIST}, "x.zip", "x.zip: File exists"},
      {Error{EEXIST, "inner"}, "outer", "outer: inner: File exists"},
      {Error::described("not a folder"), "CARD", "CARD: not a folder"},
  };
  for (const Case& c : cases) {
    const Error shown = c.outer ? c.error.within(c.outer) : c.error;
    EXPECT_EQ(shown.message(), c.shown);
    EXPECT_EQ(shown.code, c.error.code) << c.shown;
  }
}
