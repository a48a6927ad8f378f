#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "common/SettingsFile.h"
#include "support/TempDir.h"

namespace kd {
namespace {

using test::readFile;
using test::TempDir;

// Damaged files are kept aside under names that never replace one another;
// what cannot be read is never written; text XML cannot carry goes binary.
TEST(SettingsFile, KeepsWhatItCannotUse) {
  TempDir dir;
  const std::string path = dir / "s.plist";
  for (int run = 1; run <= 3; ++run) {
    dir.touch("s.plist", "damaged " + std::to_string(run));
    Settings s = loadSettings(path);
    EXPECT_TRUE(s.writable);
    EXPECT_NE(s.message.find(" is damaged ("), std::string::npos) << s.message;
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  std::set<std::string> kept;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    kept.insert(readFile(e.path().string()));
  EXPECT_EQ(kept, (std::set<std::string>{"damaged 1", "damaged 2", "damaged 3"}));

  Settings missing = loadSettings(dir / "none.plist");
  EXPECT_TRUE(missing.writable && missing.message.empty() && missing.dict.empty());

  const std::string folder = dir.mkdir("folder.plist");
  Settings unreadable = loadSettings(folder);
  EXPECT_FALSE(unreadable.writable);
  EXPECT_EQ(unreadable.message, "Unable to read settings file " + folder +
                                    " (not a regular file); it is left as it is and no settings "
                                    "are written");
  std::string error;
  EXPECT_FALSE(saveSettings(unreadable, folder, std::nullopt, &error));
  EXPECT_EQ(error, "the settings file could not be read, so it is left as it is");
  EXPECT_TRUE(std::filesystem::is_directory(folder));
  EXPECT_FALSE(saveSettings(Settings{}, dir / "gone/s.plist", std::nullopt, &error));
  EXPECT_EQ(error.rfind("cannot create " + (dir / "gone/.s.plist.tmp"), 0), 0u) << error;
  EXPECT_NE(error.find(": No such file or directory"), std::string::npos) << error;

  ASSERT_EQ(symlink(path.c_str(), (dir / "link.plist").c_str()), 0);
  EXPECT_FALSE(loadSettings(dir / "link.plist", false).writable) << "links refused when asked";

  Settings control;
  control.dict["bell"] = PlistValue(std::string("ring\a"));
  ASSERT_TRUE(saveSettings(control, path, std::nullopt, &error)) << error;
  Settings back = loadSettings(path);
  EXPECT_EQ(back.format, PlistFormat::Binary);
  EXPECT_EQ(back.dict, control.dict);
}

}  // namespace
}  // namespace kd
