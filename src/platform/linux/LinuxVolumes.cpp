// Volumes on Linux: the mount table (libmount) for the mounted volumes and
// removable media, and statvfs, sysfs and libblkid for the disk information of
// one mount point.
#include <blkid/blkid.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>

#include "common/Path.h"
#include "platform/linux/BlockDevices.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/MountTable.h"

namespace kd {

namespace {

// What libblkid reads from a device's superblock; empty fields when the
// device cannot be read (an ordinary user may not open it).
struct Superblock {
  std::string type, label, uuid;
};

Superblock probeSuperblock(const std::string& deviceNode) {
  Superblock sb;
  std::unique_ptr<blkid_struct_probe, void (*)(blkid_probe)> probe(
      blkid_new_probe_from_filename(deviceNode.c_str()), blkid_free_probe);
  if (!probe) return sb;
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(),
                                    BLKID_SUBLKS_LABEL | BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE);
  if (blkid_do_safeprobe(probe.get()) != 0) return sb;
  auto value = [&](const char* name) {
    const char* data = nullptr;
    return blkid_probe_lookup_value(probe.get(), name, &data, nullptr) == 0 && data
               ? std::string(data)
               : std::string();
  };
  sb.type = value("TYPE");
  sb.label = value("LABEL");
  sb.uuid = value("UUID");
  return sb;
}

// The name a user sees for a file-system type, as macOS's disk information
// gives it where the type exists on both systems.
std::string fileSystemName(const std::string& type) {
  if (type == "exfat") return "ExFAT";
  if (type == "vfat" || type == "msdos") return "MS-DOS (FAT)";
  if (type == "hfsplus") return "Mac OS Extended";
  if (type == "ntfs" || type == "ntfs3") return "NTFS";
  return type;
}

// The macOS type names of file systems that Linux names differently.
std::string fileSystemType(const std::string& type) {
  if (type == "vfat") return "msdos";
  if (type == "hfsplus") return "hfs";
  if (type == "ntfs3") return "ntfs";
  return type;
}

// fuse mounts name their kind of mount, not the file system ("fuseblk").
bool isFuseType(const std::string& type) {
  return type == "fuseblk" || type == "fuse" || type.rfind("fuse.", 0) == 0;
}

// The mount points of the mount table, read on first need; one check.
class MountPoints {
 public:
  // Whether `folder`, its links resolved, is a mount point.
  bool has(const std::string& folder) {
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(folder.c_str(), nullptr),
                                                     std::free);
    if (!real) return false;
    if (!read_) {
      for (auto& m : readMountTable()) targets_.insert(std::move(m.target));
      read_ = true;
    }
    return targets_.count(real.get()) > 0;
  }

 private:
  bool read_ = false;
  std::set<std::string> targets_;
};

// Whether the drive folder that `stack` (the components below "/") ends at,
// if it ends at one, is mounted: /media/<user>/<name> (or a drive mounted
// straight at /media/<name>, as older systems do), /run/media/<user>/<name>
// or /mnt/<name> (or a drive mounted at /mnt itself, by hand).
bool driveFolderMounted(const std::vector<std::string>& stack, MountPoints& mounts) {
  auto upTo = [&](std::size_t n) {
    std::string folder;
    for (std::size_t i = 0; i < n; ++i) folder += "/" + stack[i];
    return folder;
  };
  const std::size_t n = stack.size();
  if (stack[0] == "media" && n == 3) return mounts.has(upTo(3)) || mounts.has(upTo(2));
  if (stack[0] == "run" && n == 4 && stack[1] == "media") return mounts.has(upTo(4));
  if (stack[0] == "mnt" && n == 2) return mounts.has(upTo(2)) || mounts.has(upTo(1));
  return true;
}

// Walks an absolute path as the kernel would make its folders one by one,
// taking "." and ".." as they come, and checks every drive folder on the way:
// "/media/u/CARD/../GONE" and "/media/u/GONE/.." both pass through GONE.
bool driveFoldersMountedAlong(const std::string& path, MountPoints& mounts) {
  std::vector<std::string> stack;
  for (const std::string& part : path::components(path)) {
    if (part == "/" || part == "." || part.empty()) continue;
    if (part == "..") {
      if (!stack.empty()) stack.pop_back();
      continue;
    }
    stack.push_back(part);
    if (!driveFolderMounted(stack, mounts)) return false;
  }
  return true;
}

// The deepest existing part of `path` with its links resolved, followed by
// the rest as written; none when a part cannot be looked at (the text alone
// then decides).
std::optional<std::string> resolvedPath(const std::string& path) {
  std::string existing = path.empty() ? std::string(".") : path;
  std::vector<std::string> rest;
  for (;;) {
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(existing.c_str(), nullptr),
                                                     std::free);
    if (real) {
      std::string out(real.get());
      for (auto it = rest.rbegin(); it != rest.rend(); ++it) out = path::append(out, *it);
      return out;
    }
    if ((errno != ENOENT && errno != ENOTDIR) || existing == "/" || existing == ".")
      return std::nullopt;
    rest.push_back(path::lastComponent(existing));
    std::string parent = path::deletingLastComponent(existing);
    existing = parent.empty() ? std::string(1, '.') : std::move(parent);
  }
}

}  // namespace

bool isRemovableMedia(const MountEntry& m) {
  if (m.target.empty() || isPseudoFileSystem(m.fsType)) return false;
  return m.target.rfind("/media/", 0) == 0 || m.target.rfind("/run/media/", 0) == 0 ||
         (major(m.device) != 0 && isRemovableBlockDevice(m.device));
}

class LinuxVolumes final : public Volumes {
 public:
  std::vector<VolumeMount> mountTable() override {
    std::vector<VolumeMount> mounts;
    for (auto& m : readMountTable()) {
      const bool removable = isRemovableMedia(m);
      mounts.push_back({m.id, std::move(m.target), std::move(m.fsType),
                        static_cast<std::uint64_t>(m.device), removable});
    }
    return mounts;
  }

  std::vector<std::string> mountedLocalVolumePaths() override {
    std::vector<std::string> paths;
    for (const auto& m : readMountTable()) {
      if (m.target.empty() || isPseudoFileSystem(m.fsType) || isNetworkFileSystem(m.fsType))
        continue;
      if (std::find(paths.begin(), paths.end(), m.target) == paths.end()) paths.push_back(m.target);
    }
    return paths;
  }

  std::vector<std::string> mountedRemovableMedia() override {
    std::vector<std::string> media;
    for (const auto& m : readMountTable())
      if (isRemovableMedia(m)) media.push_back(m.target);
    return media;
  }

  std::optional<PlistDict> diskInfoForMountPoint(const std::string& mountPoint) override {
    if (mountPoint.empty() || mountPoint[0] != '/') return std::nullopt;
    std::string wanted = path::append("/", mountPoint);  // folds "//" and a trailing "/"
    // The last mount at a place is the one that is seen there.
    std::optional<MountEntry> found;
    for (auto& m : readMountTable())
      if (m.target == wanted && !isPseudoFileSystem(m.fsType)) found = std::move(m);
    if (!found) return std::nullopt;

    PlistDict info;
    info["MountPoint"] = found->target;
    std::string type = found->fsType;
    std::optional<std::string> node = blockDeviceNode(found->device);
    Superblock sb;
    if (node) {
      info["DeviceNode"] = *node;
      sb = probeSuperblock(*node);
      if (!sb.type.empty() && (isFuseType(type) || type == sb.type)) type = sb.type;
    }
    info["FilesystemType"] = fileSystemType(type);
    info["FilesystemName"] = fileSystemName(type);
    // A file system without a label (tmpfs) is known by its mount point's name.
    info["VolumeName"] = !sb.label.empty() ? sb.label : path::lastComponent(found->target);
    if (!sb.uuid.empty()) info["VolumeUUID"] = sb.uuid;

    struct statvfs vfs {};
    if (::statvfs(found->target.c_str(), &vfs) == 0) {
      auto frag = static_cast<std::int64_t>(vfs.f_frsize ? vfs.f_frsize : vfs.f_bsize);
      info["TotalSize"] = static_cast<std::int64_t>(vfs.f_blocks) * frag;
      info["FreeSpace"] = static_cast<std::int64_t>(vfs.f_bavail) * frag;
      info["BlockSize"] = static_cast<std::int64_t>(vfs.f_bsize);
      info["WritableVolume"] = (vfs.f_flag & ST_RDONLY) == 0;
    }
    if (major(found->device) != 0 && node) {
      bool loop = isLoopBlockDevice(found->device);
      bool removable = isRemovableBlockDevice(found->device);
      info["Removable"] = removable;
      // Disk images (loop devices) can be ejected like media; neither is internal.
      info["Ejectable"] = removable || loop;
      info["Internal"] = !removable && !loop;
    } else {
      info["Removable"] = false;
      info["Ejectable"] = false;
    }
    return info;
  }

  // The whole disk of the block device the path's file system is on. A file
  // system with no device number of its own (FUSE, as exFAT drives are
  // mounted; btrfs) names its device as the mount's source; one with neither
  // (tmpfs) is a drive of its own, named by its device number.
  std::optional<std::string> physicalDriveOf(const std::string& path) override {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    if (std::optional<std::string> disk = wholeDiskOf(st.st_dev)) return disk;
    const MountEntry* best = nullptr;
    const std::vector<MountEntry> table = readMountTable();
    for (const MountEntry& m : table)
      if (m.device == st.st_dev && (!best || m.target.size() > best->target.size())) best = &m;
    if (best && isNetworkFileSystem(best->fsType)) return std::nullopt;
    struct stat source {};
    if (best && best->source.rfind("/dev/", 0) == 0 && ::stat(best->source.c_str(), &source) == 0 &&
        S_ISBLK(source.st_mode))
      if (std::optional<std::string> disk = wholeDiskOf(source.st_rdev)) return disk;
    return "device " + std::to_string(major(st.st_dev)) + ":" + std::to_string(minor(st.st_dev));
  }

  // Both the path as written and where its links lead: a link into an empty
  // drive folder is refused as much as the folder itself.
  bool isDriveFolderMounted(const std::string& path) override {
    MountPoints mounts;
    if (!path.empty() && path[0] == '/' && !driveFoldersMountedAlong(path, mounts)) return false;
    const std::optional<std::string> real = resolvedPath(path);
    return !real || driveFoldersMountedAlong(*real, mounts);
  }
};

Volumes& LinuxPlatform::volumes() {
  static LinuxVolumes* instance = new LinuxVolumes();  // never destroyed
  return *instance;
}

}  // namespace kd
