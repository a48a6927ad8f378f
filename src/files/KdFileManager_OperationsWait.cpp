// The timeout forms of KdFileManager's operations: the operation, then a wait
// until its result is visible on disk.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "common/Path.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

namespace files = kd::files;

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// Tests `condition`, and again every 0.3 s while it does not hold and fewer
// than `timeout` seconds have passed; the last answer.
template <class Condition>
bool waitUntil(int timeout, Condition&& condition) {
  const auto start = std::chrono::steady_clock::now();
  const auto limit = std::chrono::seconds(timeout < 0 ? 0 : timeout);
  while (!condition() && std::chrono::steady_clock::now() - start < limit)
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  return condition();
}

}  // namespace

bool KdFileManager::trashFile(const std::string& path, int timeout) {
  return trashFile(path, true) && waitUntil(timeout, [&] { return !exists(path); });
}

bool KdFileManager::removeFile(const std::string& path, int timeout) {
  return removeFile(path, true) && waitUntil(timeout, [&] { return !exists(path); });
}

bool KdFileManager::createDirectory(const std::string& path, int timeout) {
  return createDirectory(path, true) && waitUntil(timeout, [&] { return isDirectoryAtPath(path); });
}

bool KdFileManager::copyFile(const std::optional<std::string>& source,
                             const std::optional<std::string>& toPath, int timeout) {
  // The copy is complete when it returns: the wait only sees it appear.
  return copyFile(source, toPath, true) && waitUntil(timeout, [&] { return exists(*toPath); });
}

bool KdFileManager::moveFile(const std::string& source, const std::string& toPath, int timeout) {
  if (files::lowercase(source) == files::lowercase(toPath)) {
    // A change of letter case: the source's name stays (in another case).
    const bool moved = moveFile(source, toPath, true);
    ::usleep(500);
    return moved;
  }
  return moveFile(source, toPath, true) && waitUntil(timeout, [&] { return !exists(source); });
}

bool KdFileManager::copyContentsOfDirectory(const std::string& folder, const std::string& toPath,
                                            int timeout) {
  kd::Result<std::vector<std::string>> names = files::entryNames(folder);
  if (!names) return true;
  for (const std::string& name : *names) {
    KdLog::fastAppendLog("File: %@", name);
    if (!copyFile(kd::path::append(folder, name), kd::path::append(toPath, name), timeout))
      return false;
  }
  return true;
}
