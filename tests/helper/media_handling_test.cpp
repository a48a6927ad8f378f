// The agent's reading of the desktop's autorun-never setting, against stand-ins
// for gsettings on PATH: only a clear "true" counts as set; a missing tool or
// schema, a failure or a tool that never answers count as not set, in bounded
// time.
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "MediaHandling.h"
#include "support/TempDir.h"

namespace {

// Puts `folder` alone on PATH for the life of the object.
class PathOverride {
 public:
  explicit PathOverride(const std::string& folder) {
    if (const char* p = std::getenv("PATH")) saved_ = p;
    setenv("PATH", folder.c_str(), 1);
  }
  ~PathOverride() { setenv("PATH", saved_.c_str(), 1); }

 private:
  std::string saved_;
};

}  // namespace

TEST(MediaHandling, AutorunNeverIsSetOnlyWhenGsettingsSaysTrue) {
  struct Case {
    const char* what;
    const char* script;  // the stand-in's body; nullptr: no gsettings at all
    bool expected;
  };
  const Case cases[] = {
      {"set", "[ \"$*\" = 'get org.gnome.desktop.media-handling autorun-never' ] && echo true",
       true},
      {"not set", "echo false", false},
      {"no schema (the desktop is not GNOME)",
       "echo 'No such schema \"org.gnome.desktop.media-handling\"' >&2; exit 1", false},
      {"true with a failure status", "echo true; exit 1", false},
      {"another answer", "echo \"'true'\"", false},
      {"no gsettings", nullptr, false},
      {"never answers", "exec /bin/sleep 60", false},
  };
  for (const Case& c : cases) {
    kd::test::TempDir dir;
    if (c.script) {
      const std::string tool = dir.touch("gsettings", std::string("#!/bin/sh\n") + c.script + "\n");
      chmod(tool.c_str(), 0755);
    }
    PathOverride path(dir.path());
    EXPECT_EQ(kd::agent::findGsettings().empty(), c.script == nullptr) << c.what;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(kd::agent::autorunNever(), c.expected) << c.what;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10))
        << c.what << ": the agent must not stall on the tool";
  }
}
