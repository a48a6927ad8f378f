// Facts about block devices and file-system types, read from sysfs and from
// fixed lists. Stateless; callable from any thread.
#pragma once

#ifndef __linux__
#error "BlockDevices is built on Linux only"
#endif

#include <sys/types.h>

#include <optional>
#include <string>

namespace kd {

// Whether the block device with this device number is removable or sits on a
// USB or MMC bus (the whole disk of a partition counts).
bool isRemovableBlockDevice(dev_t dev);
// Whether the device is a loop device (a disk image).
bool isLoopBlockDevice(dev_t dev);
// The whole disk a block device is on ("sdb" for sdb1, "nvme0n1" for
// nvme0n1p2, the device's own name for a whole disk); none when sysfs does
// not know the device.
std::optional<std::string> wholeDiskOf(dev_t dev);
// "/dev/<name>" of a block device number; none when sysfs does not know it.
std::optional<std::string> blockDeviceNode(dev_t dev);
// Kernel and pseudo file systems (proc, sysfs, cgroup, overlay, ...).
bool isPseudoFileSystem(const std::string& type);
// File systems whose data lies on another machine (nfs, cifs, sshfs, ...).
bool isNetworkFileSystem(const std::string& type);

}  // namespace kd
