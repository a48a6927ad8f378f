// The file-I/O calls on Linux. Built into kd_common (see src/CMakeLists.txt).
#ifndef __linux__
#error "this file is built on Linux only"
#endif

#include "platform/FileIO.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/UniqueFd.h"

namespace kd::fileio {

int flushToDevice(int fd) {
  return retryOnEintr([&] { return ::fdatasync(fd); }) == 0 ? 0 : errno;
}

int flushFolderToDevice(int folder) {
  return retryOnEintr([&] { return ::fsync(folder); }) == 0 ? 0 : errno;
}

void dropCachedPages(int fd) {
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
}

void readSequentially(int fd) {
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

int setTimes(int fd, const struct timespec& accessed, const struct timespec& modified) {
  const struct timespec times[2] = {accessed, modified};
  return ::futimens(fd, times) == 0 ? 0 : errno;
}

int setTimesAt(int folder, const std::string& name, const struct timespec& accessed,
               const struct timespec& modified) {
  const struct timespec times[2] = {accessed, modified};
  return ::utimensat(folder, name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
}

int renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to) {
  if (::renameat2(fromFolder, from.c_str(), toFolder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  // EINVAL: the file system has no such flag (FUSE, older kernels' NFS);
  // ENOSYS: a kernel without renameat2.
  return errno == EINVAL || errno == ENOSYS ? ENOTSUP : errno;
}

int renameNoReplaceOrLook(int fromFolder, const std::string& from, int toFolder,
                          const std::string& to) {
  const int strict = renameNoReplace(fromFolder, from, toFolder, to);
  if (strict != ENOTSUP) return strict;
  struct stat st {};
  if (::fstatat(toFolder, to.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  if (::fstatat(fromFolder, from.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  return ::renameat(fromFolder, from.c_str(), toFolder, to.c_str()) == 0 ? 0 : errno;
}

}  // namespace kd::fileio
