#include "platform/linux/BlockDevices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string_view>

namespace kd {

namespace {

std::string readFirstLine(const std::string& p) {
  std::ifstream in(p);
  std::string s;
  std::getline(in, s);
  return s;
}

std::string sysfsLink(dev_t dev) {
  char link[64];
  std::snprintf(link, sizeof link, "/sys/dev/block/%u:%u", major(dev), minor(dev));
  return link;
}

bool listed(const std::string& type, std::initializer_list<std::string_view> names) {
  for (std::string_view n : names)
    if (type == n) return true;
  return false;
}

}  // namespace

bool isRemovableBlockDevice(dev_t dev) {
  std::string sys = sysfsLink(dev);
  char target[4096];
  ssize_t n = readlink(sys.c_str(), target, sizeof target - 1);
  if (n <= 0) return false;
  target[n] = '\0';
  std::string devPath(target);  // ../../devices/pci.../usb1/.../block/sdb/sdb1
  if (devPath.find("/usb") != std::string::npos || devPath.find("/mmc") != std::string::npos)
    return true;
  if (readFirstLine(sys + "/removable") == "1") return true;
  // A partition: its parent folder is the whole disk.
  struct stat st {};
  if (::stat((sys + "/partition").c_str(), &st) == 0)
    return readFirstLine(sys + "/../removable") == "1";
  return false;
}

bool isLoopBlockDevice(dev_t dev) {
  return major(dev) == 7;
}

std::optional<std::string> wholeDiskOf(dev_t dev) {
  if (major(dev) == 0) return std::nullopt;
  const std::string sys = sysfsLink(dev);
  char target[4096];
  const ssize_t n = ::readlink(sys.c_str(), target, sizeof target - 1);
  if (n <= 0) return std::nullopt;
  std::string devPath(target, static_cast<std::size_t>(n));  // .../block/sdb/sdb1
  struct stat st {};
  if (::stat((sys + "/partition").c_str(), &st) == 0) devPath.resize(devPath.rfind('/'));
  return devPath.substr(devPath.rfind('/') + 1);
}

std::optional<std::string> blockDeviceNode(dev_t dev) {
  if (major(dev) == 0) return std::nullopt;
  std::ifstream in(sysfsLink(dev) + "/uevent");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("DEVNAME=", 0) == 0 && line.size() > 8) return "/dev/" + line.substr(8);
  return std::nullopt;
}

bool isPseudoFileSystem(const std::string& type) {
  return listed(type, {"proc",       "sysfs",      "devtmpfs",    "devpts",         "cgroup",
                       "cgroup2",    "securityfs", "debugfs",     "tracefs",        "pstore",
                       "bpf",        "mqueue",     "hugetlbfs",   "autofs",         "configfs",
                       "fusectl",    "overlay",    "nsfs",        "efivarfs",       "binfmt_misc",
                       "rpc_pipefs", "selinuxfs",  "fuse.portal", "fuse.gvfsd-fuse"});
}

bool isNetworkFileSystem(const std::string& type) {
  return listed(type, {"nfs", "nfs4", "cifs", "smb3", "smbfs", "ceph", "9p", "afs", "glusterfs",
                       "fuse.sshfs", "fuse.rclone", "davfs", "fuse.davfs2"});
}

}  // namespace kd
