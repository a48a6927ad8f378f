// The mount table as the agent reads it: the platform's (`kd::platform()`,
// through libKd.so), each mount with whether it is removable media.
//
// Stateless; callable from any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kd::agent {

struct MountEntry {
  int id = 0;
  std::string target;  // the mount point
  std::string fsType;
  dev_t device = 0;
  bool removable = false;
};

// The system's mount table, in its order.
std::vector<MountEntry> readMountTable();

// Whether a card could be this mount (see `kd::VolumeMount::removable`).
inline bool isRemovableMedia(const MountEntry& mount) {
  return mount.removable;
}

}  // namespace kd::agent
