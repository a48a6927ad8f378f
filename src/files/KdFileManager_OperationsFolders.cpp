// Folder helpers of KdFileManager: emptiness, mirrored folder structures and
// empty files.
#include <sys/stat.h>

#include <cerrno>

#include "common/Path.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"

namespace {

namespace files = kd::files;

bool ignoredEntry(const std::string& name) {
  return name == ".DS_Store" || name == "Icon\r";
}

bool folderEmpty(const std::string& path, bool top) {
  kd::Result<std::vector<std::string>> names = files::entryNames(path, top);
  // Only a folder that is not there counts as empty; one that cannot be read
  // may hold anything.
  if (!names) return top && names.error().code == ENOENT;
  for (const std::string& name : *names) {
    if (ignoredEntry(name)) continue;
    struct stat st {};
    const std::string entry = kd::path::append(path, name);
    if (::lstat(entry.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (!folderEmpty(entry, false)) return false;
  }
  return true;
}

}  // namespace

bool KdFileManager::isFolderEmpty(const std::string& path) {
  return !path.empty() && folderEmpty(path, true);
}

bool KdFileManager::removeFolderIfEmpty(const std::string& path) {
  return isFolderEmpty(path) && removeFile(path);
}

std::string KdFileManager::createDirectoryStructure(const std::string& path,
                                                    const std::string& destination) {
  const std::string relative = isDirectoryAtPath(path) && !isPackageAtPath(path)
                                   ? path
                                   : kd::path::deletingLastComponent(path);
  const std::string mirror = kd::path::append(destination, relative);
  if (!fileExistsAtPath(mirror)) createDirectory(mirror);
  return mirror;
}
