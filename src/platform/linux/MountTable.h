// The mount table of this process's mount namespace, read with libmount.
//
// Stateless; callable from any thread.
#pragma once

#ifndef __linux__
#error "MountTable is built on Linux only"
#endif

#include <sys/types.h>

#include <string>
#include <vector>

namespace kd {

// One mount. `id` is the kernel's mount id, so a remount at the same place
// counts as a different mount.
struct MountEntry {
  int id = 0;
  std::string target;
  std::string fsType;
  dev_t device = 0;
};

// The current mounts in table order; empty when the table cannot be read.
std::vector<MountEntry> readMountTable();

// Whether a mount counts as removable media (what mountedRemovableMedia
// lists): a real file system mounted under /media/ or /run/media/, or from a
// removable, USB or MMC block device.
bool isRemovableMedia(const MountEntry& mount);

}  // namespace kd
