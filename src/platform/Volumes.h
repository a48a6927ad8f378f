// Mounted volumes and what the system knows about the disk behind one.
//
// One of the small service interfaces that `Platform::volumes()` hands out.
// `ForwardingVolumes` forwards every call so that a fake overrides only what
// it needs. Implementations are stateless and callable from any thread.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "../common/PropertyList.h"

namespace kd {

// One mount of the system's mount table. `id` tells mounts apart: a remount
// at the same place is a different mount.
struct KD_EXPORT VolumeMount {
  int id = 0;
  std::string mountPoint;
  std::string fileSystemType;  // as the system names it ("ext4", "fuseblk")
  std::uint64_t device = 0;    // the device number; 0 for none
  // Removable media (a card, a USB disk): mounted below the desktop's media
  // folder, or from a removable block device. Where the system mounts what the
  // user inserts; pseudo file systems never are.
  bool removable = false;
  bool operator==(const VolumeMount&) const = default;
};

class KD_EXPORT Volumes {
 public:
  virtual ~Volumes() = default;

  // Every mount, pseudo file systems included, in the table's order; empty
  // when the table cannot be read.
  virtual std::vector<VolumeMount> mountTable() = 0;

  // Mount points of the mounted local volumes (mountedLocalVolumePaths), in
  // the system's order, the start-up volume "/" included. Pseudo and network
  // file systems are not volumes.
  virtual std::vector<std::string> mountedLocalVolumePaths() = 0;

  // Mount points of the mounted removable media (camera cards, USB drives),
  // in the system's order.
  virtual std::vector<std::string> mountedRemovableMedia() = 0;

  // The disk information of the volume mounted exactly at `mountPoint`, with
  // the keys of macOS's disk information ("VolumeName", "FilesystemType",
  // "TotalSize", ...); none when nothing is mounted there.
  virtual std::optional<PlistDict> diskInfoForMountPoint(const std::string& mountPoint) = 0;

  // Whether every drive folder that `path` passes through is mounted. A drive
  // folder is one in which the system mounts a drive by its name; when the
  // drive is unplugged the folder is missing or is a plain folder on the
  // start-up disk, and a folder made there would not be on the drive. True
  // for a path through no drive folder. macOS's "/Volumes/<name>" is a text
  // rule of KdFileManager and no business of this call (macOS answers true);
  // Linux checks /media/<user>/<name>, /run/media/<user>/<name> and
  // /mnt/<name> (docs/platform.md).
  virtual bool isDriveFolderMounted(const std::string& path) = 0;

  // The physical drive `path` lies on ("sdb", "nvme0n1", "disk2"): two
  // folders with the same answer are on one drive, whatever their volumes.
  // None when the system cannot tell (a network volume).
  virtual std::optional<std::string> physicalDriveOf(const std::string& path) = 0;
};

class KD_EXPORT ForwardingVolumes : public Volumes {
 public:
  explicit ForwardingVolumes(Volumes& target) : target_(target) {}
  std::vector<VolumeMount> mountTable() override { return target_.mountTable(); }
  std::vector<std::string> mountedLocalVolumePaths() override {
    return target_.mountedLocalVolumePaths();
  }
  std::vector<std::string> mountedRemovableMedia() override {
    return target_.mountedRemovableMedia();
  }
  std::optional<PlistDict> diskInfoForMountPoint(const std::string& mountPoint) override {
    return target_.diskInfoForMountPoint(mountPoint);
  }
  bool isDriveFolderMounted(const std::string& path) override {
    return target_.isDriveFolderMounted(path);
  }
  std::optional<std::string> physicalDriveOf(const std::string& path) override {
    return target_.physicalDriveOf(path);
  }

 protected:
  Volumes& target() { return target_; }

 private:
  Volumes& target_;
};

}  // namespace kd
