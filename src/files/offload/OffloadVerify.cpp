// Reading a whole file for its digest, from the cache or from the device.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/UniqueFd.h"
#include "files/copy/FileDigest.h"
#include "files/offload/OffloadInternal.h"
#include "platform/FileIO.h"

namespace kd::offload {

std::optional<std::string> digestOfFile(int folder, const std::string& path,
                                        const KdFileManager::CopyDigest& digest, bool fromDevice,
                                        const std::function<void(std::uint64_t)>& read,
                                        std::string& error) {
  std::optional<std::vector<std::string>> digests =
      digestsOfFile(folder, path, {digest}, fromDevice, read, error);
  if (!digests) return std::nullopt;
  return std::move(digests->front());
}

std::optional<std::vector<std::string>> digestsOfFile(
    int folder, const std::string& path, const std::vector<KdFileManager::CopyDigest>& kinds,
    bool fromDevice, const std::function<void(std::uint64_t)>& read, std::string& error) {
  // Opened without waiting, so that a named pipe put in a file's place
  // cannot hold the run; then made blocking for the reads.
  UniqueFd fd(retryOnEintr([&] {
    return ::openat(folder, path.c_str(),
                    O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }));
  struct stat st {};
  if (!fd || ::fstat(fd.get(), &st) != 0) {
    error = std::strerror(errno);
    return std::nullopt;
  }
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (!S_ISREG(st.st_mode) || flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) {
    error = "it is not a regular file";
    return std::nullopt;
  }
  if (fromDevice) {
    // Dirty pages cannot be dropped: write them out first. A file system
    // without the flush (read-only ones) has nothing dirty to write.
    const int flushed = fileio::flushToDevice(fd.get());
    if (flushed != 0 && flushed != EINVAL && flushed != EROFS) {
      error = std::string("flushing to the device failed: ") + std::strerror(flushed);
      return std::nullopt;
    }
    fileio::dropCachedPages(fd.get());
  }
  fileio::readSequentially(fd.get());
  std::optional<std::vector<std::string>> texts =
      copy::digestsOfOpenFile(fd.get(), kinds,
                              read ? std::function<bool(std::uint64_t)>([&](std::uint64_t n) {
                                read(n);
                                return true;
                              })
                                   : nullptr,
                              error);
  if (fromDevice) fileio::dropCachedPages(fd.get());
  return texts;
}

}  // namespace kd::offload
