// The one loop that reads a whole file for its digests.
#include "files/copy/FileDigest.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/UniqueFd.h"

namespace kd::copy {

std::optional<std::vector<std::string>> digestsOfOpenFile(
    int fd, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, std::string& error) {
  constexpr std::size_t kBuffer = 1 << 20;
  std::vector<std::unique_ptr<KdFileManager::CopyDigester>> digesters;
  for (const KdFileManager::CopyDigest& kind : kinds) {
    digesters.push_back(kind.make ? kind.make() : nullptr);
    if (!digesters.back()) {
      error = "the " + kind.name + " digest is not available";
      return std::nullopt;
    }
  }
  const std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[kBuffer]);
  if (!buffer) {
    error = "out of memory";
    return std::nullopt;
  }
  for (off_t at = 0;;) {
    const ssize_t n = retryOnEintr([&] { return ::pread(fd, buffer.get(), kBuffer, at); });
    if (n < 0) {
      error = std::string("a read failed: ") + std::strerror(errno);
      return std::nullopt;
    }
    if (n == 0) break;
    at += n;
    for (const auto& digester : digesters)
      digester->update(buffer.get(), static_cast<std::size_t>(n));
    if (read && !read(static_cast<std::uint64_t>(n))) {
      error = "stopped";
      return std::nullopt;
    }
  }
  std::vector<std::string> texts;
  for (const auto& digester : digesters) {
    std::optional<std::string> text = digester->text();
    if (!text) {
      error = "the digest failed";
      return std::nullopt;
    }
    texts.push_back(std::move(*text));
  }
  return texts;
}

std::optional<std::string> digestOfOpenFile(int fd, const KdFileManager::CopyDigest& kind,
                                            const std::function<bool(std::uint64_t)>& read,
                                            std::string& error) {
  std::optional<std::vector<std::string>> digests = digestsOfOpenFile(fd, {kind}, read, error);
  if (!digests) return std::nullopt;
  return std::move(digests->front());
}

}  // namespace kd::copy
