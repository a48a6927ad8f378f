// Volume rules, disk information and the open-for-writing test of
// KdFileManager.
#include "common/Path.h"
#include "files/KdFileManager.h"
#include "platform/Platform.h"

namespace {

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// The two mount tests differ only in the prefix that marks the volumes
// folder: "/Volumes" (so "/VolumesX/a" counts as inside) or "/Volumes/".
bool volumeFolderExists(const std::string& path, std::string_view prefix) {
  if (!startsWith(path, prefix)) return true;
  const auto parts = kd::path::components(path);
  if (parts.size() < 3) return true;
  // "/" + "/" + "Volumes" + "/" + name: the doubled slash reads as one.
  return KdFileManager::fileExistsAtPath(parts[0] + "/" + parts[1] + "/" + parts[2]);
}

}  // namespace

bool KdFileManager::isVolumeMountedForPath(const std::string& path) {
  return volumeFolderExists(path, "/Volumes");
}

bool KdFileManager::isDriveMountedForPath(const std::string& path) {
  // The platform's own drive folders (on Linux /media/<user>/<name> and the
  // like) must be mount points as well.
  return volumeFolderExists(path, "/Volumes/") &&
         kd::platform().volumes().isDriveFolderMounted(path);
}

std::optional<std::string> KdFileManager::volumeMountPointForPath(const std::string& path) {
  // Mounts nest (a card under /run/media/<user> inside a tmpfs /run): the
  // innermost mount that holds the path, the longest mount point, is its
  // volume. Of equal ones the first listed wins.
  const std::string* best = nullptr;
  const auto volumes = kd::platform().volumes().mountedLocalVolumePaths();
  for (const auto& volume : volumes) {
    if (volume == "/" || (best && volume.size() <= best->size())) continue;
    if (path == volume ||
        (startsWith(path, volume) && path.size() > volume.size() && path[volume.size()] == '/'))
      best = &volume;
  }
  if (best) return *best;
  if (startsWith(path, "/Volumes")) return std::nullopt;  // a volume that is not mounted
  return std::string("/");                                // the start-up volume
}

std::optional<kd::PlistDict> KdFileManager::infoForDiskAtMountpoint(const std::string& mountPoint) {
  if (mountPoint.empty()) return std::nullopt;
  return kd::platform().volumes().diskInfoForMountPoint(mountPoint);
}

bool KdFileManager::fileIsOpenForWriting(const std::string& path) {
  if (path.empty()) return false;
  return kd::platform().fileMetadata().isOpenForWriting(path);
}
