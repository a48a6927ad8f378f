// The Linux volume, file-metadata and desktop services on real files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "platform/Platform.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using kd::test::TempDir;

namespace {

bool userAttributesWork(const std::string& file) {
  if (::setxattr(file.c_str(), "user.kd-probe", "1", 1, 0) != 0) return false;
  ::removexattr(file.c_str(), "user.kd-probe");
  return true;
}

TEST(LinuxVolumes, RealFileSystemsOnly) {
  auto paths = kd::nativePlatform().volumes().mountedLocalVolumePaths();
  EXPECT_NE(std::find(paths.begin(), paths.end(), "/"), paths.end());
  for (const char* pseudo : {"/proc", "/sys", "/dev/pts"})
    EXPECT_EQ(std::find(paths.begin(), paths.end(), pseudo), paths.end()) << pseudo;
  EXPECT_EQ(std::set<std::string>(paths.begin(), paths.end()).size(), paths.size());
  auto table = kd::nativePlatform().volumes().mountTable();
  EXPECT_TRUE(std::any_of(table.begin(), table.end(), [](const kd::VolumeMount& m) {
    return m.mountPoint == "/proc" && m.fileSystemType == "proc";
  }));
  EXPECT_FALSE(kd::nativePlatform().volumes().diskInfoForMountPoint("/proc"));
  EXPECT_FALSE(kd::nativePlatform().volumes().diskInfoForMountPoint("relative"));
}

TEST(LinuxFileMetadata, NameSpacesAndCreationDates) {
  TempDir d;
  const std::string file = d.touch("f");
  if (!userAttributesWork(file)) GTEST_SKIP() << "no user attributes on " << d.path();
  auto& md = kd::nativePlatform().fileMetadata();
  ASSERT_EQ(md.setExtendedAttribute(file, "com.quillfen.a", "1"), 0);
  ASSERT_EQ(md.setExtendedAttribute(file, "user.b", "22"), 0);
  EXPECT_EQ(md.getExtendedAttribute(file, "user.com.quillfen.a", nullptr, 0), 1);
  EXPECT_EQ(md.getExtendedAttribute(file, "b", nullptr, 0), 2);
  auto names = md.listExtendedAttributes(file);
  ASSERT_TRUE(names);
  std::sort(names->begin(), names->end());
  EXPECT_EQ(*names, (std::vector<std::string>{"b", "com.quillfen.a"}));
  EXPECT_EQ(md.removeExtendedAttribute(file, "b"), 0);
  EXPECT_LT(md.getExtendedAttribute(file, "b", nullptr, 0), 0);
  EXPECT_EQ(errno, ENODATA);
  // A name space other than user. stays (root alone may use trusted.).
  EXPECT_LT(md.getExtendedAttribute(file, "trusted.none", nullptr, 0), 0);

  // A set creation date wins over the birth time, and taking it back restores that.
  const auto born = md.creationDate(file);
  const kd::FileDate set{std::chrono::seconds(1000000000) + std::chrono::nanoseconds(5)};
  ASSERT_TRUE(md.setCreationDate(file, set));
  EXPECT_EQ(md.creationDate(file), set);
  ASSERT_TRUE(md.setCreationDate(file, std::nullopt));
  EXPECT_EQ(md.creationDate(file), born);
  EXPECT_TRUE(md.setCreationDate(file, std::nullopt)) << "nothing to take back";
  const kd::Result<void> missing = md.setCreationDate(d / "missing", set);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().message(), "No such file or directory");
}

TEST(LinuxFileMetadata, LinksAreNeverLocked) {
  TempDir d;
  const std::string file = d.touch("f");
  fs::create_symlink(file, d / "link");
  auto& md = kd::nativePlatform().fileMetadata();
  EXPECT_TRUE(md.setLocked(d / "link", true));
  EXPECT_FALSE(md.isLocked(d / "link"));
  EXPECT_FALSE(md.isLocked(file)) << "the target is left alone";
  EXPECT_TRUE(md.setLocked(file, false)) << "never locked: nothing to do";
}

TEST(LinuxDesktop, RegisteringWritesADesktopEntry) {
  TempDir d;
  kd::test::ScopedEnv env({"XDG_DATA_HOME"}, {d / "data"});
  auto& desktop = kd::nativePlatform().desktop();
  const std::string tool = d.touch("bin/My Tool", "#!/bin/sh\n");
  ::chmod(tool.c_str(), 0755);
  ASSERT_TRUE(desktop.registerApplication(tool));
  const std::string entry = kd::test::readFile(d / "data/applications/My Tool.desktop");
  EXPECT_NE(entry.find("Exec=\"" + tool + "\" %F\n"), std::string::npos) << entry;
  const std::string given =
      d.touch("com.quillfen.Viewer.desktop", "[Desktop Entry]\nType=Application\nExec=viewer %f\n");
  ASSERT_TRUE(desktop.registerApplication(given));
  EXPECT_EQ(kd::test::readFile(d / "data/applications/com.quillfen.Viewer.desktop"),
            kd::test::readFile(given));
  EXPECT_FALSE(desktop.registerApplication(d.mkdir("Folder.app")));
  EXPECT_FALSE(desktop.registerApplication(d / "missing"));
  desktop.noteFileSystemChanged(d.path());
}

}  // namespace
