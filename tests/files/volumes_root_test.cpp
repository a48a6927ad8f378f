// Volumes, disk information and locking on real mounts: tmpfs, a loop-mounted
// ext4 image and an exFAT card image (mounted through exfat-fuse, since the
// kernel here has no exFAT driver), and locking as a throwaway user.
#include <fcntl.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "FilesFixture.h"
#include "ScopedMount.h"
#include "support/ChildMode.h"
#include "support/Process.h"
#include "tasks/KdTaskEx.h"

namespace fs = std::filesystem;

namespace kd::test {
namespace {

using FM = KdFileManager;

constexpr char kPython[] = "/usr/bin/python3";

// The value of a key when it is there and of type T.
template <class T>
std::optional<T> value(const PlistDict& d, const std::string& key) {
  auto it = d.find(key);
  const T* v = it == d.end() ? nullptr : it->second.get<T>();
  return v ? std::optional<T>(*v) : std::nullopt;
}
std::optional<std::string> text(const PlistDict& d, const std::string& key) {
  return value<std::string>(d, key);
}
std::optional<std::int64_t> number(const PlistDict& d, const std::string& key) {
  return value<std::int64_t>(d, key);
}

class VolumesRoot : public FilesTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    FilesTest::SetUp();
  }
  const std::string tag_ = std::to_string(getpid());
};

TEST_F(VolumesRoot, TmpfsIsAVolumeWithDiskInformation) {
  ScopedMount m("KDCARD" + tag_);
  if (!m.ok()) GTEST_SKIP() << m.error();
  EXPECT_EQ(FM::volumeMountPointForPath(m.point() + "/DCIM/100"), m.point());
  EXPECT_EQ(FM::volumeMountPointForPath(m.point()), m.point());
  EXPECT_NE(FM::volumeMountPointForPath(m.point() + "X/a"), m.point());
  auto info = FM::infoForDiskAtMountpoint(m.point() + "/");
  ASSERT_TRUE(info);
  EXPECT_EQ(text(*info, "VolumeName"), "KDCARD" + tag_);
  EXPECT_EQ(text(*info, "FilesystemType"), "tmpfs");
  EXPECT_EQ(text(*info, "MountPoint"), m.point());
  EXPECT_EQ(number(*info, "TotalSize"), 4 << 20);
  EXPECT_GT(number(*info, "FreeSpace"), 0);
  EXPECT_LE(number(*info, "FreeSpace"), number(*info, "TotalSize"));
  EXPECT_GT(number(*info, "BlockSize"), 0);
  EXPECT_EQ(value<bool>(*info, "WritableVolume"), true);
  EXPECT_EQ(value<bool>(*info, "Removable"), false);
  EXPECT_EQ(info->count("DeviceNode"), 0u) << "tmpfs has no device";
  EXPECT_FALSE(FM::infoForDiskAtMountpoint(m.point() + "/DCIM"));
  EXPECT_FALSE(FM::infoForDiskAtMountpoint(dir_.path())) << "not a mount point";

  // What kd info prints reads back with the standard readers.
  if (::access(kPython, X_OK) != 0) GTEST_SKIP() << kPython << " is missing";
  const std::string kd = KD_TOOL_PATH;
  const std::string plist = KdTaskEx::stringFromTask(
      "/bin/sh",
      {"-c",
       "\"$0\" info --plist \"$1\" | \"$2\" -c 'import plistlib, sys; "
       "d = plistlib.loads(sys.stdin.buffer.read()); print(d[\"VolumeName\"], d[\"TotalSize\"])'",
       kd, m.point(), kPython},
      10.0);
  EXPECT_EQ(plist, "KDCARD" + tag_ + " 4194304\n");
  EXPECT_EQ(runTool({"/bin/sh", "-c", "\"$0\" info --json \"$1\" | \"$2\" -m json.tool >/dev/null",
                     kd, m.point(), kPython}),
            0);
  EXPECT_EQ(runTool({kd, "info", dir_.path()}), 1);
}

TEST_F(VolumesRoot, LoopMountedExt4Image) {
  ScopedMount m("ext4-" + tag_, {"/usr/sbin/mkfs.ext4", "-q", "-L", "KD_EXT4"}, "");
  if (!m.ok()) GTEST_SKIP() << m.error();
  auto info = FM::infoForDiskAtMountpoint(m.point());
  ASSERT_TRUE(info);
  EXPECT_EQ(text(*info, "VolumeName"), "KD_EXT4");
  EXPECT_EQ(text(*info, "FilesystemType"), "ext4");
  EXPECT_EQ(text(*info, "DeviceNode"), m.device());
  EXPECT_TRUE(text(*info, "VolumeUUID"));
  EXPECT_GT(number(*info, "TotalSize"), 8 << 20);
  EXPECT_EQ(value<bool>(*info, "Ejectable"), true) << "a disk image";
  EXPECT_EQ(value<bool>(*info, "Internal"), false);
  EXPECT_EQ(FM::volumeMountPointForPath(m.point() + "/lost+found"), m.point());
}

TEST_F(VolumesRoot, ExfatCardImage) {
  ScopedMount m("exfat-" + tag_, {"/usr/sbin/mkfs.exfat", "-L", "KD_CARD"},
                "/usr/sbin/mount.exfat-fuse");
  if (!m.ok()) GTEST_SKIP() << m.error();
  auto info = FM::infoForDiskAtMountpoint(m.point());
  ASSERT_TRUE(info);
  EXPECT_EQ(text(*info, "VolumeName"), "KD_CARD");
  EXPECT_EQ(text(*info, "FilesystemType"), "exfat") << "the file system, not fuseblk";
  EXPECT_EQ(text(*info, "FilesystemName"), "ExFAT");
  EXPECT_EQ(text(*info, "DeviceNode"), m.device());
  EXPECT_EQ(value<bool>(*info, "WritableVolume"), true);

  // A card keeps neither attributes nor flags: unlocking finds nothing to
  // undo and says nothing; locking says why it could not.
  const std::string clip = m.point() + "/CLIP/A001.MOV";
  fs::create_directories(m.point() + "/CLIP");
  { std::ofstream(clip) << "footage"; }
  FM::unlockFolder(m.point());
  FM::unlockFile(clip);
  EXPECT_FALSE(FM::isFileLocked(clip));
  EXPECT_TRUE(logged().empty());
  FM::lockFile(clip);
  EXPECT_FALSE(FM::isFileLocked(clip));
  EXPECT_EQ(logged(), Lines{"Unable to unlock file " + clip + ": Operation not supported"});
  EXPECT_EQ(FM::fileSize(m.point()), 7u);
}

// What createDirectory does under the drive folders: /media/kd/CARD,
// /media/USB, /run/media/kd/CARD and /mnt/CARD are mounted; GONE is not there
// and LEFT is a plain folder left behind; CARD/link points at GONE. The last
// rows run with a drive mounted straight at /mnt.
constexpr struct {
  const char* path;
  bool made;
} kDriveFolderCases[] = {
    {"/media/kd/CARD/Backup", true},
    {"/media/kd/CARD", true},
    {"/media/USB/Backup", true},  // a drive mounted straight under /media
    {"/media/kd2", true},         // no drive folder
    {"/media/kd/GONE/Backup", false},
    {"/media/kd/GONE", false},
    {"/media/kd/LEFT/Backup", false},
    {"/media/kd/CARD/../GONE/Backup", false},
    {"/media/kd/GONE/..", false},
    {"/media/kd/CARD/link/Backup", false},
    {"/run/media/kd/CARD/Backup", true},
    {"/run/media/kd/GONE/Backup", false},
    {"/mnt/CARD/Backup", true},
    {"/mnt/GONE/Backup", false},
    {"/mnt/Backup", true},  // with a drive at /mnt
};
constexpr int kNoNamespace = 77;

// Runs the cases in a mount namespace of its own, inside a tmpfs as its root
// (given as the argument), so that nothing is seen by the machine or lands on
// its disk, and /media and /mnt are plain folders as they usually are.
int driveFoldersChild(const std::vector<std::string>& args) {
  const std::string root = args.at(0);
  auto tmpfs = [](const std::string& at) {
    return ::mount("tmpfs", at.c_str(), "tmpfs", 0, "size=1m") == 0;
  };
  std::error_code ec;
  if (::unshare(CLONE_NEWNS) != 0 ||
      ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !tmpfs(root) ||
      !fs::create_directories(root + "/proc", ec) ||
      ::mount("/proc", (root + "/proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
      ::chroot(root.c_str()) != 0 || ::chdir("/") != 0)
    return kNoNamespace;
  fs::create_directories("/media/kd/LEFT", ec);
  fs::create_directories("/run", ec);
  if (!tmpfs("/run")) return kNoNamespace;  // nested mounts, as on a desktop
  for (const char* card : {"/media/kd/CARD", "/media/USB", "/run/media/kd/CARD", "/mnt/CARD"})
    if (!fs::create_directories(card, ec) || !tmpfs(card)) return kNoNamespace;
  fs::create_directory_symlink("/media/kd/GONE", "/media/kd/CARD/link", ec);

  int failures = 0;
  for (const auto& c : kDriveFolderCases) {
    if (std::string_view(c.path) == "/mnt/Backup" && !tmpfs("/mnt")) return kNoNamespace;
    if (KdFileManager::createDirectory(c.path, false) == c.made) continue;
    std::printf("%s: %s\n", c.path, c.made ? "refused" : "made");
    ++failures;
  }
  for (const char* gone : {"/media/kd/GONE", "/media/kd/LEFT/Backup", "/run/media/kd/GONE"}) {
    if (!fs::exists(gone, ec)) continue;
    std::printf("%s was made on the disk below\n", gone);
    ++failures;
  }
  // Nested mounts: the card, not the tmpfs /run it lies in.
  const auto point = KdFileManager::volumeMountPointForPath("/run/media/kd/CARD/DCIM");
  if (point != "/run/media/kd/CARD") {
    std::printf("the card's mount point is %s\n", point.value_or("none").c_str());
    ++failures;
  }
  return failures == 0 ? 0 : 1;
}
KD_CHILD_MODE("drive-folders", driveFoldersChild);

TEST_F(VolumesRoot, CreateDirectoryRefusesDriveFoldersWithoutTheirDrive) {
  const std::string out = dir_ / "out";
  const int rc = run({selfExecutable(), "--kd-child", "drive-folders", dir_.mkdir("root")},
                     {.out = out, .err = dir_ / "err"});
  if (rc == kNoNamespace) GTEST_SKIP() << "no mount namespace of our own here";
  EXPECT_EQ(rc, 0) << readFile(out);
}

bool immutable(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int flags = 0;
  bool set = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL);
  if (fd >= 0) ::close(fd);
  return set;
}

// Runs "lock" or "unlock" on a folder in a child process.
int lockChild(const std::vector<std::string>& args) {
  if (args.at(1) == "lock")
    KdFileManager::lockFolder(args.at(0));
  else
    KdFileManager::unlockFolder(args.at(0));
  return 0;
}
KD_CHILD_MODE("lock-tree", lockChild);

TEST_F(VolumesRoot, LockAsRootAndAsAnOrdinaryUser) {
  if (::access("/usr/sbin/useradd", X_OK) != 0 || ::access("/usr/bin/setpriv", X_OK) != 0)
    GTEST_SKIP() << "useradd or setpriv is missing";
  ScopedMount m("lock-" + tag_, {"/usr/sbin/mkfs.ext4", "-q"}, "");
  if (!m.ok()) GTEST_SKIP() << m.error();
  const std::string user = "kdlock" + tag_;
  ASSERT_EQ(runTool({"/usr/sbin/useradd", "-M", "-d", "/nonexistent", "-s", "/usr/sbin/nologin",
                     "-U", user}),
            0);
  struct Cleanup {
    std::string user;
    ~Cleanup() { runTool({"/usr/sbin/userdel", user}); }
  } cleanup{user};
  struct passwd* pw = getpwnam(user.c_str());
  ASSERT_TRUE(pw);
  const uid_t uid = pw->pw_uid;
  const gid_t gid = pw->pw_gid;

  const std::string tree = m.point() + "/card";
  const std::string files[] = {tree + "/a.mov", tree + "/sub/b.mov", tree + "/sub/deep/c.xml"};
  fs::create_directories(tree + "/sub/deep");
  for (const auto& f : files) std::ofstream(f) << "x";
  ::chmod(files[2].c_str(), 0664);
  for (const auto& p : fs::recursive_directory_iterator(tree)) ::chown(p.path().c_str(), uid, gid);
  ::chown(tree.c_str(), uid, gid);
  ::chmod(m.point().c_str(), 0755);

  // Root sets the immutable flag and leaves the bits alone.
  FM::lockFolder(tree);
  for (const auto& f : files) {
    EXPECT_TRUE(immutable(f)) << f;
    EXPECT_TRUE(FM::isFileLocked(f)) << f;
  }
  EXPECT_FALSE(immutable(tree));
  FM::unlockFolder(tree);
  for (const auto& f : files) EXPECT_FALSE(immutable(f)) << f;
  struct stat st {};
  ::stat(files[2].c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0664u);

  // An ordinary user cannot set the flag: the marker and no write bits.
  auto asUser = [&](const char* op) {
    return runTool({"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                    "--regid=" + std::to_string(gid), "--clear-groups", selfExecutable(),
                    "--kd-child", "lock-tree", tree, op});
  };
  ASSERT_EQ(asUser("lock"), 0);
  for (const auto& f : files) {
    EXPECT_FALSE(immutable(f)) << f;
    EXPECT_TRUE(FM::isFileLocked(f)) << f;
    ::stat(f.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0222, 0u) << f;
  }
  ASSERT_EQ(asUser("unlock"), 0);
  for (const auto& f : files) EXPECT_FALSE(FM::isFileLocked(f)) << f;
  ::stat(files[2].c_str(), &st);
  EXPECT_EQ(st.st_mode & 07777, 0664u) << "the bits from before, exactly";
  ::stat(files[0].c_str(), &st);
  EXPECT_EQ(st.st_mode & 0200, 0200u);
}

}  // namespace
}  // namespace kd::test
