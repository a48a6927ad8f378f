#include "Mounts.h"

#include <utility>

#include "platform/Platform.h"
#include "platform/Volumes.h"

namespace kd::agent {

std::vector<MountEntry> readMountTable() {
  std::vector<MountEntry> table;
  for (auto& m : kd::platform().volumes().mountTable())
    table.push_back({m.id, std::move(m.mountPoint), std::move(m.fileSystemType),
                     static_cast<dev_t>(m.device), m.removable});
  return table;
}

}  // namespace kd::agent
