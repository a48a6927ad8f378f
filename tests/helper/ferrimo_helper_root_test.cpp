// FerrimoHelper end to end: the built program runs as a throwaway ordinary user
// (root's user folders would be the console user's, and a test machine has
// none) against real tmpfs cards mounted under /media/<that user>/.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "common/PropertyList.h"
#include "helper/FerrimoHelper.h"
#include "platform/Platform.h"
#include "support/ChildMode.h"
#include "support/Process.h"
#include "support/RunnableCopy.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using kd::test::readFile;
using kd::test::run;
using kd::test::TempDir;

namespace {

// A run as root with the given user at the console ("--kd-child root-run USER
// ARGS..."): the helper then writes into that user's home.
class ConsoleUserPlatform : public kd::ForwardingPlatform {
 public:
  explicit ConsoleUserPlatform(std::string user)
      : ForwardingPlatform(kd::nativePlatform()), user_(std::move(user)) {}
  std::optional<std::string> consoleUser() override { return user_; }

 private:
  std::string user_;
};

int runAsRootForConsoleUser(const std::vector<std::string>& args) {
  for (const char* v : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
    unsetenv(v);
  setenv("HOME", "/root", 1);
  static ConsoleUserPlatform platform(args.at(0));
  kd::setPlatformForTesting(&platform);
  return FerrimoHelper::run({args.begin() + 1, args.end()});
}
KD_CHILD_MODE("root-run", runAsRootForConsoleUser);

}  // namespace

class FerrimoHelperRoot : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() != 0) {
      skipReason_ = "needs root to create a user and mount cards";
      return;
    }
    if (access("/usr/sbin/useradd", X_OK) != 0 || access("/usr/bin/setpriv", X_OK) != 0) {
      skipReason_ = "useradd or setpriv is missing";
      return;
    }
    root_ = new TempDir();
    chmod(root_->path().c_str(), 0755);
    user_ = "kdhelper" + std::to_string(getpid() % 100000);
    // A home as the system lays them out: <homes>/<user>.
    home_ = root_->mkdir("home") + "/" + user_;
    if (run({"/usr/sbin/useradd", "-M", "-d", home_, "-s", "/usr/sbin/nologin", "-U", user_}) !=
        0) {
      skipReason_ = "useradd failed";
      return;
    }
    struct passwd* pw = getpwnam(user_.c_str());
    uid_ = pw->pw_uid;
    gid_ = pw->pw_gid;
  }

  static void TearDownTestSuite() {
    if (uid_ != 0) run({"/usr/sbin/userdel", user_});
    if (!user_.empty()) fs::remove_all("/media/" + user_);
    delete root_;
    root_ = nullptr;
  }

  void SetUp() override {
    if (!skipReason_.empty()) GTEST_SKIP() << skipReason_;
    // A fresh home and application folder for every test.
    fs::remove_all(home_);
    for (const char* d : {"", "/.config", "/.local/state"}) {
      fs::create_directories(home_ + d);
      chown((home_ + d).c_str(), uid_, gid_);
    }
    chown((home_ + "/.local").c_str(), uid_, gid_);
    appDir_ = root_->path() + "/Ferrimo.app";
    fs::remove_all(appDir_);
    fs::create_directories(appDir_ + "/Contents/MacOS");
    fs::copy_file(KD_STAND_IN_FERRIMO, appDir_ + "/Contents/MacOS/Ferrimo");
    chmod((appDir_ + "/Contents/MacOS").c_str(), 0777);  // the stand-in writes its record here
    // A copy the user may run: the build folder may be closed to it.
    helper_ = kd::test::runnableCopy(KD_HELPER_PATH, root_->path());
    ASSERT_NE(helper_, "");
  }

  void TearDown() override {
    for (const auto& m : mounts_) umount2(m.c_str(), MNT_DETACH);
    mounts_.clear();
  }

  // Mounts a tmpfs card named `name` holding `files`, modified `ageSeconds` ago.
  std::string mountCard(const std::string& name, const std::vector<std::string>& files,
                        double ageSeconds = 0) {
    std::string card = "/media/" + user_ + "/" + name;
    fs::create_directories(card);
    if (mount("tmpfs", card.c_str(), "tmpfs", 0, "size=1m,mode=0755") != 0) {
      ADD_FAILURE() << "cannot mount tmpfs: " << strerror(errno);
      return card;
    }
    mounts_.push_back(card);
    for (const auto& f : files) {
      fs::create_directories(fs::path(card + "/" + f).parent_path());
      std::ofstream(card + "/" + f) << "x";
    }
    fs::last_write_time(card, fs::file_time_type::clock::now() -
                                  std::chrono::duration_cast<fs::file_time_type::duration>(
                                      std::chrono::duration<double>(ageSeconds)));
    return card;
  }

  // Runs the helper as the throwaway user in the application folder.
  void runHelper(const std::vector<std::string>& args = {}) {
    std::vector<std::string> cmd{"/usr/bin/setpriv",
                                 "--reuid=" + std::to_string(uid_),
                                 "--regid=" + std::to_string(gid_),
                                 "--clear-groups",
                                 "--",
                                 helper_};
    cmd.insert(cmd.end(), args.begin(), args.end());
    const std::vector<std::string> env{"HOME=" + home_, "USER=" + user_, "PATH=/usr/bin:/bin"};
    EXPECT_EQ(run(cmd, {.env = env, .cwd = appDir_}), 0);
  }

  // Runs the helper as root with the throwaway user at the console.
  void runHelperAsRoot(const std::vector<std::string>& args = {}) {
    std::vector<std::string> cmd{kd::test::selfExecutable(), "--kd-child", "root-run", user_};
    cmd.insert(cmd.end(), args.begin(), args.end());
    EXPECT_EQ(run(cmd, {.env = std::vector<std::string>{"PATH=/usr/bin:/bin"}, .cwd = appDir_}), 0);
  }

  std::string settingsPath() const { return home_ + "/.config/com.quillfen.Ferrimo.plist"; }
  std::string log() const { return readFile(home_ + "/.local/state/Quillfen/FerrimoHelper.1.log"); }
  std::string launchesPath() const { return appDir_ + "/Contents/MacOS/launches.log"; }

  // The stand-in's launches, after giving a launch in flight time to land.
  std::string launches(bool expectOne) const {
    kd::test::waitUntil([&] { return !readFile(launchesPath()).empty(); },
                        std::chrono::milliseconds(expectOne ? 3000 : 300));
    return readFile(launchesPath());
  }

  // Puts `bytes` at `path` as the user's file.
  void put(const std::string& path, const std::string& bytes) {
    fs::remove(path);
    std::ofstream(path, std::ios::binary) << bytes;
    chown(path.c_str(), uid_, gid_);
  }
  // What the run kept aside of damaged settings; "(none)" when nothing.
  std::string keptAside() const {
    for (const auto& e : fs::directory_iterator(home_ + "/.config"))
      if (e.path().filename().string().starts_with("com.quillfen.Ferrimo.plist.damaged-"))
        return readFile(e.path().string());
    return "(none)";
  }

  void writeSettings(const kd::PlistDict& dict) {
    ASSERT_TRUE(kd::writePlistDictionaryAtomically(dict, settingsPath()));
    chown(settingsPath().c_str(), uid_, gid_);
  }

  static inline TempDir* root_ = nullptr;
  static inline std::string skipReason_;
  static inline std::string user_, home_;
  static inline uid_t uid_ = 0;
  static inline gid_t gid_ = 0;
  std::string appDir_;
  std::string helper_;
  std::vector<std::string> mounts_;
};

// What a run launches and logs, by the card, its age and the settings. The
// helper waits 2 s before it reads the card's date: 117.5 s before the run is
// about 119.5 s old when examined, 119.5 s about 121.5 s.
TEST_F(FerrimoHelperRoot, WhatARunLaunchesAndLogs) {
  struct Case {
    const char* what;
    std::vector<std::string> files;  // the card's; none: no card at all
    double age;                      // the card's, in seconds
    kd::PlistDict settings;
    int setupAgo;      // seconds since the last setup; -1: none recorded
    std::string says;  // a line of the log
    bool launched;
    const char* absent = nullptr;  // not in the log
  };
  const kd::PlistDict ignored{{"ignoredVolumes", kd::PlistArray{"OTHER", "CARD"}}};
  // clang-format off
  const Case cases[] = {
      {"a fresh card", {"BPAV/CLPR/x.MP4"}, 0, {}, -1, " - Format: 3\n", true},
      {"an unknown layout", {"notes.txt"}, 0, {}, -1, " - Format: -1\n", false},
      {"no media at all", {}, 0, {}, -1, " - Most recent mount date: 0001-01-01 00:00:00 +0000\n", false},
      {"an ignored volume", {"MEDIAPRO.XML"}, 0, ignored, -1, " - This drive has been ignored\n", false},
      {"59 s after setup", {"MEDIAPRO.XML"}, 0, {}, 59, " - User recently logged in; ignoring mount notifications\n", false},
      {"61 s after setup", {"MEDIAPRO.XML"}, 0, {}, 61, " - Format: 2\n", true},
      {"a card 117.5 s old", {"MEDIAPRO.XML"}, 117.5, {}, -1, " - Format: 2\n", true},
      {"a card 119.5 s old", {"MEDIAPRO.XML"}, 119.5, {}, -1, " - Most recent mount date: ", false, "Recent volume"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TearDown();
    fs::remove(launchesPath());
    fs::remove(settingsPath());
    kd::PlistDict settings = c.settings;
    if (c.setupAgo >= 0)
      settings["lastStartup"] =
          kd::PlistValue(std::chrono::system_clock::now() - std::chrono::seconds(c.setupAgo));
    if (!settings.empty()) writeSettings(settings);
    const std::string card = c.files.empty() ? "" : mountCard("CARD", c.files, c.age);
    runHelper();
    const std::string text = log();
    EXPECT_NE(text.find(c.says), std::string::npos) << text;
    EXPECT_EQ(c.absent ? text.find(c.absent) : std::string::npos, std::string::npos) << text;
    const auto after = kd::readPlistDictionaryOrEmpty(settingsPath());
    if (!c.launched) {
      EXPECT_EQ(launches(false), "");
      EXPECT_TRUE(c.setupAgo < 0 || !kd::plistDate(after, "exit")) << "an early exit records none";
      continue;
    }
    EXPECT_EQ(launches(true), "-ferrimoVolume\t" + card + "\n");
    EXPECT_NE(text.find(" - Recent volume: " + card + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find(" - Current app path: " + appDir_ + "\n"), std::string::npos) << text;
    auto launch = kd::plistDate(after, "launch"), exit = kd::plistDate(after, "exit");
    ASSERT_TRUE(launch && exit) << "the run is recorded for crash detection";
    EXPECT_GE(*exit, *launch);
  }
}

// A Ferrimo of this user already runs (a second copy, in its own folder).
TEST_F(FerrimoHelperRoot, ARunningFerrimoLaunchesNothing) {
  mountCard("CARD", {"MEDIAPRO.XML"});
  std::string other = root_->mkdir("running");
  chmod(other.c_str(), 0777);
  fs::copy_file(KD_STAND_IN_FERRIMO, other + "/Ferrimo");
  const pid_t pid = kd::test::spawn(
      {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid_), "--regid=" + std::to_string(gid_),
       "--clear-groups", "--", other + "/Ferrimo"},
      {.env = std::vector<std::string>{"FERRIMO_STANDIN_STAY=30"}});
  ASSERT_GT(pid, 0);
  kd::test::waitUntil([&] { return !readFile(other + "/launches.log").empty(); });
  runHelper();
  kill(pid, SIGKILL);
  kd::test::waitFor(pid);
  EXPECT_NE(log().find(" - Ferrimo is already running.\n"), std::string::npos) << log();
  EXPECT_EQ(launches(false), "");
}

TEST_F(FerrimoHelperRoot, SetupRecordsTheMountedDrivesAndLaunchesNothing) {
  std::string card = mountCard("CARD", {"MEDIAPRO.XML"});
  auto before = std::chrono::system_clock::now() - std::chrono::seconds(1);
  runHelper({"-setup"});
  auto settings = kd::readPlistDictionaryOrEmpty(settingsPath());
  auto lastStartup = kd::plistDate(settings, "lastStartup");
  ASSERT_TRUE(lastStartup);
  EXPECT_GE(*lastStartup, before);
  ASSERT_TRUE(settings.count("mountedDrives"));
  EXPECT_EQ(settings.at("mountedDrives"), kd::PlistValue(kd::PlistArray{card}));
  EXPECT_NE(log().find(" - Setting up...\n"), std::string::npos) << log();
  EXPECT_EQ(launches(false), "");
}

// A root run hands its files to the user by descriptor before they take their
// names: a user who keeps swapping a link to someone else's file in at the
// settings path never gets that file, and the folders a root run creates are
// the user's, so the user's own runs can log afterwards.
TEST_F(FerrimoHelperRoot, RootRunsGiveTheUserNothingButItsOwnFiles) {
  fs::remove_all(home_ + "/.config");
  fs::remove_all(home_ + "/.local");
  const std::string victim = root_->path() + "/victim";
  std::ofstream(victim) << "root's own";
  chmod(victim.c_str(), 0600);

  pid_t racer = fork();
  if (racer == 0) {
    if (setgid(gid_) != 0 || setuid(uid_) != 0) _exit(1);
    const std::string config = home_ + "/.config", link = config + "/.swap";
    for (;;) {
      mkdir(config.c_str(), 0700);
      symlink(victim.c_str(), link.c_str());
      rename(link.c_str(), settingsPath().c_str());
    }
  }
  ASSERT_GT(racer, 0);
  for (int i = 0; i < 15; ++i) runHelperAsRoot({"-setup"});
  kill(racer, SIGKILL);
  waitpid(racer, nullptr, 0);

  struct stat st {};
  ASSERT_EQ(stat(victim.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(readFile(victim), "root's own");

  // Without the racer: the settings and the log folder are the user's.
  fs::remove(settingsPath());
  fs::remove_all(home_ + "/.local");
  runHelperAsRoot({"-setup"});
  ASSERT_EQ(lstat(settingsPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, uid_);
  EXPECT_TRUE(kd::plistDate(kd::readPlistDictionaryOrEmpty(settingsPath()), "lastStartup"));
  for (const char* dir : {"/.local", "/.local/state", "/.local/state/Quillfen"}) {
    ASSERT_EQ(stat((home_ + dir).c_str(), &st), 0) << dir;
    EXPECT_EQ(st.st_uid, uid_) << dir;
    EXPECT_EQ(st.st_mode & 0777, 0700u) << dir;
  }
  runHelper({"-setup"});
  EXPECT_NE(log().find(" - Setting up...\n"), std::string::npos)
      << "the user logs after a root run";
}

// Settings are shared with Ferrimo: a file the helper cannot read is left
// exactly as it was, a damaged one is kept aside before a fresh one is
// written, values the helper does not use survive untouched, and hostile
// global preferences (deep nesting, a named pipe) neither crash nor stall it.
// A settings file replaced behind the program's back: 50 MB of random bytes
// are damaged settings, kept aside byte for byte; a folder in its place is
// left as it is, contents and all, and the run still ends normally.
TEST_F(FerrimoHelperRoot, SettingsReplacedByGarbageOrAFolder) {
  const std::string settings = settingsPath();
  std::string garbage(50u << 20, '\0');
  std::uint32_t x = 2463534242u;  // xorshift: the same bytes every run
  for (char& c : garbage) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    c = static_cast<char>(x);
  }
  put(settings, garbage);
  runHelper({"-setup"});
  EXPECT_NE(log().find(" is damaged ("), std::string::npos) << log();
  EXPECT_TRUE(keptAside() == garbage) << "the damaged file is not kept aside whole";
  EXPECT_TRUE(kd::plistDate(kd::readPlistDictionaryOrEmpty(settings), "lastStartup"));

  fs::remove(settings);
  fs::create_directories(settings + "/inside");
  std::ofstream(settings + "/inside/note") << "mine";
  chown(settings.c_str(), uid_, gid_);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"-setup"}, {}}) {
    runHelper(args);
    EXPECT_TRUE(fs::is_directory(settings));
    EXPECT_EQ(readFile(settings + "/inside/note"), "mine");
  }
  EXPECT_NE(log().find(settings), std::string::npos) << "the run says what it could not use:\n"
                                                     << log();
}

TEST_F(FerrimoHelperRoot, SettingsAreNeverLost) {
  const std::string settings = settingsPath();

  // A NUL byte, which the XML form cannot hold: damaged, kept aside, replaced.
  const std::string withNul =
      std::string("<plist><dict><key>a</key><string>x") + '\0' + "y</string></dict></plist>";
  put(settings, withNul);
  runHelper({"-setup"});
  EXPECT_NE(log().find(" is damaged ("), std::string::npos) << log();
  EXPECT_EQ(keptAside(), withNul);
  EXPECT_TRUE(kd::plistDate(kd::readPlistDictionaryOrEmpty(settings), "lastStartup"));

  // The binary form holds NUL bytes in keys and strings: they are kept, and so
  // are values beyond 32-bit dates and signed integers, in the binary form.
  const std::string nulKey = std::string("a") + '\0' + "b";
  const auto year2100 = std::chrono::sys_days{std::chrono::year{2100} / 1 / 1};
  kd::PlistDict foreign{{nulKey, kd::PlistValue(std::string("x") + '\0' + "y")},
                        {"big", kd::PlistValue(UINT64_MAX)},
                        {"far", kd::PlistValue(kd::PlistDate(year2100))}};
  fs::remove(settings);
  ASSERT_TRUE(kd::writePlistFileAtomically(foreign, settings, kd::PlistFormat::Binary));
  chown(settings.c_str(), uid_, gid_);
  runHelper({"-setup"});
  auto back = kd::readPlistFile(settings);
  ASSERT_EQ(back.status, kd::PlistReadStatus::Ok) << back.reason;
  EXPECT_EQ(back.format, kd::PlistFormat::Binary);
  for (const auto& [key, value] : foreign) EXPECT_EQ(back.dict[key], value) << key;

  // Unreadable: left byte for byte, mode and all; the run says why.
  put(settings, "<plist><dict><key>keep</key><string>me</string></dict></plist>");
  chmod(settings.c_str(), 0);
  runHelper({"-setup"});
  chmod(settings.c_str(), 0644);
  EXPECT_EQ(readFile(settings), "<plist><dict><key>keep</key><string>me</string></dict></plist>");
  EXPECT_NE(log().find("Unable to read settings file"), std::string::npos) << log();

  // Large: a 70 MB value is read and written back whole.
  const std::string large(70u << 20, 'x');
  fs::remove(settings);
  ASSERT_TRUE(kd::writePlistDictionaryAtomically({{"large", kd::PlistValue(large)}}, settings));
  chown(settings.c_str(), uid_, gid_);
  runHelper({"-setup"});
  auto bigBack = kd::readPlistDictionaryOrEmpty(settings);
  ASSERT_TRUE(bigBack.count("large"));
  EXPECT_TRUE(bigBack["large"] == kd::PlistValue(large));
  EXPECT_TRUE(kd::plistDate(bigBack, "exit"));

  // Global preferences nested 200,000 deep, then a named pipe in their place.
  const std::string global = home_ + "/.config/com.quillfen.global.plist";
  std::string deep = "<plist><dict><key>disable-logging</key>";
  for (int i = 0; i < 200000; ++i) deep += "<array>";
  put(global, deep);
  fs::remove(settings);
  runHelper({"-setup"});
  EXPECT_NE(log().find(" - Setting up...\n"), std::string::npos) << "a normal, logged run";
  fs::remove(global);
  ASSERT_EQ(mkfifo(global.c_str(), 0644), 0);
  chown(global.c_str(), uid_, gid_);
  runHelper({"-setup"});
  EXPECT_NE(log().find(" - Setting up...\n"), std::string::npos) << "a normal, logged run";
  fs::remove(global);
}
