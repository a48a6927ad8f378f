// The mount table of this process's mount namespace, read with libmount.
//
// Stateless; callable from any thread.
#pragma once

#ifndef __linux__
#error "MountTable is built on Linux only"
#endif

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace kd {

// One mount. `id` is the kernel's mount id, so a remount at the same place
// counts as a different mount.
struct MountEntry {
  int id = 0;
  std::string target;
  std::string fsType;
  dev_t device = 0;
  std::string source;  // what is mounted: "/dev/sdb1", "tmpfs", ...
};

// The current mounts in table order; empty when the table cannot be read.
std::vector<MountEntry> readMountTable();

// The mounts of a text in the form of /proc/self/mountinfo, read as
// readMountTable reads the kernel's; empty when the text is not such a table.
std::vector<MountEntry> parseMountTable(std::string_view mountinfo);

// Whether a mount counts as removable media (what Volumes::mountedRemovableMedia
// lists): a real file system mounted under /media/ or /run/media/, or from a
// removable, USB or MMC block device.
bool isRemovableMedia(const MountEntry& mount);

}  // namespace kd
