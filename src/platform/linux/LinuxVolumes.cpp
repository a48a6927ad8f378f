// Volumes on Linux: the mount table (libmount) for the mounted volumes, and
// statvfs, sysfs and libblkid for the disk information of one mount point.
#include <blkid/blkid.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <memory>

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

}  // namespace

class LinuxVolumes final : public Volumes {
 public:
  std::vector<VolumeMount> mountTable() override {
    std::vector<VolumeMount> mounts;
    for (auto& m : readMountTable())
      mounts.push_back(
          {m.id, std::move(m.target), std::move(m.fsType), static_cast<std::uint64_t>(m.device)});
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
};

Volumes& LinuxPlatform::volumes() {
  static LinuxVolumes* instance = new LinuxVolumes();  // never destroyed
  return *instance;
}

}  // namespace kd
