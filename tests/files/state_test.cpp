#include <fcntl.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "FilesFixture.h"
#include "common/UniqueFd.h"
#include "support/ChildMode.h"
#include "support/Process.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

TEST(FileSizeText, EveryBound) {
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    double size;
    const char* text;
  } cases[] = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1.00 KB"},
      {1536, "1.50 KB"},
      {1048575, "1024.00 KB"},
      {1048576, "1.00 MB"},
      {1073741823, "1024.00 MB"},
      {1073741824, "1.00 GB"},
      {1099511627775.0, "1024.00 GB"},
      {1099511627776.0, "1.00 TB"},
      {1125899906842624.0, "1024.00 TB"},
      {-5, "-5 B"},
      {std::nan(""), "nan TB"},
      {inf, "inf TB"},
  };
  for (const auto& c : cases) EXPECT_EQ(FM::formatFileSize(c.size), c.text) << c.size;
}

TEST(FileNames, ValidateFilename) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {".", ""},
      {"..", ""},  // "." after the first dot goes: never the folder itself
      {"...", ""},
      {"....", "..."},
      {".hidden", "hidden"},
      {"..hidden", ".hidden"},
      {" a/b:c ", "abc"},
      {"\t\n Clip 1.mov \xC2\xA0", "Clip 1.mov"},  // a no-break space is a blank too
      {" .x", ".x"},                               // the dot test comes before trimming
      {"/", ""},
      {":/:", ""},
      {" ./. ", ""},
      {"a::b//c", "abc"},
      {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(FM::validateFilename(c.in), c.out) << '"' << c.in << '"';
}

TEST(FileNames, UniqueFilenameNumbersFromTwo) {
  TempDir d;
  EXPECT_EQ(FM::uniqueFilename(d / "a.txt"), d / "a.txt");
  d.touch("a.txt");
  EXPECT_EQ(FM::uniqueFilename(d / "a.txt"), d / "a 2.txt");
  d.touch("a 2.txt");
  EXPECT_EQ(FM::uniqueFilename(d / "a.txt"), d / "a 3.txt");
  d.touch("Clip");
  EXPECT_EQ(FM::uniqueFilename(d / "Clip"), d / "Clip 2");
  d.touch(".hidden");
  EXPECT_EQ(FM::uniqueFilename(d / ".hidden"), d / ".hidden 2");
  // A dangling link is taken: a file written there would land elsewhere.
  fs::create_symlink(d / "nowhere", d / "link.mov");
  EXPECT_EQ(FM::uniqueFilename(d / "link.mov"), d / "link 2.mov");
}

// The macOS fake with the volumes macOS would list.
class VolumesPlatform : public FakeMacPlatform {
 public:
  struct FakeVolumes : ForwardingVolumes {
    using ForwardingVolumes::ForwardingVolumes;
    std::vector<std::string> mountedLocalVolumePaths() override {
      return {"/", "/Volumes/Card", "/Volumes/Card 2", "/run", "/run/media/bob/CARD"};
    }
  };
  Volumes& volumes() override { return volumes_; }
  FakeVolumes volumes_{FakeMacPlatform::volumes()};
};

TEST(VolumeRules, OnTheMacOSFake) {
  VolumesPlatform mac;
  ScopedPlatform scoped(mac);
  const struct {
    const char* path;
    std::optional<std::string> mountPoint;
  } mountPoints[] = {
      {"/Volumes/Card/DCIM", "/Volumes/Card"},
      {"/Volumes/Card", "/Volumes/Card"},
      {"/Volumes/Card 2/x", "/Volumes/Card 2"},
      {"/run/media/bob/CARD/DCIM", "/run/media/bob/CARD"},  // the inner of nested mounts
      {"/run/media/bob/CARDX", "/run"},
      {"/Volumes/CardX", std::nullopt},
      {"/Volumes/Card X/a", std::nullopt},
      {"/Volumes", std::nullopt},
      {"/VolumesX/a", std::nullopt},
      {"/Users/x", "/"},
      {"/", "/"},
  };
  for (const auto& c : mountPoints)
    EXPECT_EQ(FM::volumeMountPointForPath(c.path), c.mountPoint) << c.path;

  // Nothing exists under /Volumes on this machine, so the text rules decide.
  const struct {
    const char* path;
    bool volume, drive;
  } mounted[] = {
      {"/Users/x", true, true},        {"/Volumes", true, true},
      {"/Volumes/Gone", false, false}, {"/Volumes/Gone/a", false, false},
      {"/VolumesX/a", false, true},
  };
  for (const auto& c : mounted) {
    EXPECT_EQ(FM::isVolumeMountedForPath(c.path), c.volume) << c.path;
    EXPECT_EQ(FM::isDriveMountedForPath(c.path), c.drive) << c.path;
  }
}

TEST(FileState, Queries) {
  TempDir d;
  d.touch("f", "0123456789");
  d.mkdir("empty");
  d.mkdir("Tool.app/Contents");
  d.mkdir("Plain.app");
  fs::create_symlink(d / "f", d / "link");
  fs::create_symlink(d / "nowhere", d / "dangling");
  fs::create_symlink(d / "empty", d / "dirlink");
  struct {
    std::string path;
    bool exists, folder, package, link;
  } cases[] = {
      {d / "f", true, false, false, false},      {d / "empty", true, true, false, false},
      {d / "Tool.app", true, true, true, false}, {d / "Plain.app", true, true, false, false},
      {d / "link", true, false, false, true},    {d / "dangling", false, false, false, true},
      {d / "dirlink", true, true, false, true},  {d / "missing", false, false, false, false},
      {"", false, false, false, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FM::fileExistsAtPath(c.path), c.exists) << c.path;
    EXPECT_EQ(FM::isDirectoryAtPath(c.path), c.folder) << c.path;
    EXPECT_EQ(FM::isPackageAtPath(c.path), c.package) << c.path;
    EXPECT_EQ(FM::isSymbolicLinkAtPath(c.path), c.link) << c.path;
  }
  EXPECT_FALSE(FM::modificationDateForFile(d / "missing"));
  EXPECT_FALSE(FM::creationDateForFile(d / "missing"));
}

TEST(FileState, DatesAreSetOnTheItemItself) {
  TempDir d;
  d.touch("f");
  fs::create_symlink(d / "f", d / "link");
  const auto old = secondsAgo(3600);
  ASSERT_TRUE(FM::setModificationDate(old, d / "link"));
  EXPECT_EQ(FM::modificationDateForFile(d / "link"), old);
  EXPECT_NE(FM::modificationDateForFile(d / "f"), old) << "the link's target is left alone";
  EXPECT_FALSE(FM::setModificationDate(old, d / "missing"));
}

TEST(FileState, FileSizeCountsLinksAsThemselves) {
  TempDir d;
  d.touch("tree/ten", "0123456789");
  d.mkdir("tree/empty");
  EXPECT_EQ(FM::fileSize(d / "tree"), 10u);
  EXPECT_EQ(FM::fileSize(d / "tree/ten"), 10u);
  EXPECT_EQ(FM::fileSize(d / "missing"), 0u);
  EXPECT_EQ(FM::fileSize(d / "tree/empty"), 0u);

  // A cycle back to the top and a link to "/" add their own sizes only.
  d.touch("loop/sub/three", "abc");
  fs::create_symlink("..", d / "loop/sub/up");
  fs::create_symlink("/", d / "loop/root");
  EXPECT_EQ(FM::fileSize(d / "loop"), 3u + 2 + 1);  // "three", then the links ".." and "/"
  // The path given is followed when it is a link to a folder.
  fs::create_symlink(d / "tree", d / "treelink");
  EXPECT_EQ(FM::fileSize(d / "treelink"), 10u);
}

TEST_F(FilesTest, WaitForFileCreationLooksOnce) {
  const std::string missing = dir_ / "missing";
  const auto start = std::chrono::steady_clock::now();
  FM::waitForFileCreation(missing, 60);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  dir_.touch("empty");
  FM::waitForFileCreation(dir_ / "empty", 60);
  dir_.touch("full", "x");
  FM::waitForFileCreation(dir_ / "full", 60);
  EXPECT_EQ(logged(), Lines({"File " + missing + " is not yet created. Waiting...",
                             "File " + (dir_ / "empty") + " is not yet created. Waiting..."}));
}

TEST_F(FilesTest, WaitForWritesOfAnOldFileReturnsAtOnce) {
  const std::string file = dir_.touch("old", "x");
  FM::setModificationDate(secondsAgo(60), file);
  const auto start = std::chrono::steady_clock::now();
  FM::waitForFileWrites(file);
  FM::waitForFileWrites(dir_ / "missing", dir_ / "no-lock");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_TRUE(logged().empty());
  // An existing lock file asks for the wait; the date is old, so it ends at once.
  const std::string lock = dir_.touch("old.lock");
  FM::waitForFileWrites(file, lock);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_EQ(logged(), Lines({"File " + file + " is currently being written to. Waiting...",
                             "File " + file + " finished writing."}));
}

// Waits of several seconds: run side by side to keep the suite short.
TEST_F(FilesTest, WaitForWritesFollowsTheFile) {
  using namespace std::chrono;
  const std::string written = dir_.touch("written", "x");
  const std::string deleted = dir_.touch("deleted", "x");
  const std::string future = dir_.touch("future", "x");
  FM::setModificationDate(secondsAgo(-86400 * 365.0), future);  // a camera with a wrong clock
  std::atomic<bool> writing{true};
  std::thread writer([&] {
    for (int i = 0; i < 12; ++i) {  // 3 s of writes
      std::this_thread::sleep_for(milliseconds(250));
      FM::setModificationDate(system_clock::now(), written);
    }
    writing = false;
  });
  std::thread remover([&] {
    std::this_thread::sleep_for(milliseconds(500));
    ::unlink(deleted.c_str());
  });
  const std::string lock = dir_.touch("coming.lock");
  double writtenTook = 0, deletedTook = 0, futureTook = 0, comingTook = 0;
  auto timed = [](const std::string& p, double& took) {
    return std::thread([&p, &took] {
      const auto start = steady_clock::now();
      FM::waitForFileWrites(p);
      took = duration<double>(steady_clock::now() - start).count();
    });
  };
  std::thread w = timed(written, writtenTook), d = timed(deleted, deletedTook),
              f = timed(future, futureTook);
  // A file that is not there yet, announced by its lock file.
  std::thread c([&] {
    const auto start = steady_clock::now();
    FM::waitForFileWrites(dir_ / "coming", lock);
    comingTook = duration<double>(steady_clock::now() - start).count();
  });
  c.join();
  w.join();
  d.join();
  f.join();
  writer.join();
  remover.join();
  EXPECT_FALSE(writing);
  EXPECT_GE(writtenTook, 3.0 + 4.5) << "quiet for 5 s after the last write";
  EXPECT_LT(writtenTook, 3.0 + 7.0);
  EXPECT_GE(deletedTook, 0.5 + 4.5) << "missing for 5 s ends the wait";
  EXPECT_LT(deletedTook, 0.5 + 7.0);
  EXPECT_GE(futureTook, 4.5) << "a date in the future that stays the same for 5 s";
  EXPECT_LT(futureTook, 7.0);
  EXPECT_GE(comingTook, 4.5) << "missing counts as being written";
  EXPECT_LT(comingTook, 7.0);
  const Lines lines = logged();
  for (const std::string& p : {written, deleted, future}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "File " + p + " finished writing."), 1);
  }
}

// Holds the file args[0] open (for writing with "w", else for reading), says
// so by making the file args[2], and waits until the file args[3] exists.
int holdOpen(const std::vector<std::string>& args) {
  UniqueFd fd(::open(args.at(0).c_str(), (args.at(1) == "w" ? O_WRONLY : O_RDONLY) | O_CLOEXEC));
  if (!fd) return 2;
  std::ofstream(args.at(2)) << "ready";
  return waitUntil([&] { return exists(args.at(3)); }, std::chrono::seconds(20)) ? 0 : 3;
}
KD_CHILD_MODE("hold-open", holdOpen);

TEST(FileState, OpenForWritingSeesAnotherProcess) {
  TempDir d;
  const std::string file = d.touch("clip.mov", "x");
  fs::create_symlink(file, d / "link.mov");
  EXPECT_FALSE(FM::fileIsOpenForWriting(file));
  for (const std::string mode : {"w", "r"}) {
    const std::string ready = d / ("ready-" + mode), release = d / ("release-" + mode);
    const pid_t pid =
        spawn({selfExecutable(), "--kd-child", "hold-open", file, mode, ready, release});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(waitUntil([&] { return exists(ready); }));
    EXPECT_EQ(FM::fileIsOpenForWriting(file), mode == "w") << mode;
    EXPECT_EQ(FM::fileIsOpenForWriting(d / "link.mov"), mode == "w") << "links followed";
    d.touch(path::lastComponent(release));
    EXPECT_EQ(exitCode(waitFor(pid)), 0);
  }
  EXPECT_FALSE(FM::fileIsOpenForWriting(file));
  EXPECT_FALSE(FM::fileIsOpenForWriting(d / "missing"));
}

TEST_F(FilesTest, TouchNeverCreates) {
  const std::string file = dir_.touch("f");
  FM::setModificationDate(secondsAgo(3600), file);
  EXPECT_TRUE(FM::touchFile(file, true));
  auto modified = FM::modificationDateForFile(file);
  ASSERT_TRUE(modified);
  EXPECT_LT(std::chrono::system_clock::now() - *modified, std::chrono::seconds(60));
  auto created = FM::creationDateForFile(file);
  ASSERT_TRUE(created);
  EXPECT_LT(std::chrono::system_clock::now() - *created, std::chrono::seconds(60));

  // A relative name that looks like an option is still the file.
  const int here = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(here, 0);
  ASSERT_EQ(::chdir(dir_.path().c_str()), 0);
  for (const char* name : {"-c", "--help"}) {
    FM::setModificationDate(secondsAgo(3600), dir_.touch(name));
    EXPECT_TRUE(FM::touchFile(std::string(name)));
    EXPECT_LT(std::chrono::system_clock::now() - *FM::modificationDateForFile(dir_ / name),
              std::chrono::seconds(60))
        << name;
  }
  EXPECT_EQ(::fchdir(here), 0);
  ::close(here);

  EXPECT_FALSE(FM::touchFile(std::nullopt));
  EXPECT_FALSE(FM::touchFile(dir_ / "missing", true));
  EXPECT_FALSE(FM::fileExistsAtPath(dir_ / "missing"));
  EXPECT_TRUE(platform_.systemLogMessages().empty()) << "no rights asked for a missing file";
}

TEST_F(FilesTest, TouchOfAFileThatCannotBeWritten) {
  const std::string file = dir_.touch("locked");
  FM::lockFile(file);  // immutable for root, no write bits for others
  if (::access(file.c_str(), W_OK) == 0) {
    FM::unlockFile(file);
    GTEST_SKIP() << "the file stays writable here";
  }
  const auto before = FM::modificationDateForFile(file);
  // An ordinary user without a session gets none here (no co-process beside
  // the test program, no way to ask): the privileged touch fails, and says so.
  EXPECT_FALSE(FM::touchFile(file));
  EXPECT_FALSE(platform_.systemLogMessages().empty());
  platform_.setUid(0);
  EXPECT_FALSE(FM::touchFile(file)) << "root runs the tool itself, which fails here";
  EXPECT_EQ(FM::modificationDateForFile(file), before);
  FM::unlockFile(file);
}

}  // namespace
}  // namespace kd::test
