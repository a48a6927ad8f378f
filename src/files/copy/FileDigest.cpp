// The one loop that reads a whole file for its digests.
#include "files/copy/FileDigest.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "common/ReadAhead.h"
#include "common/UniqueFd.h"
#include "files/copy/Digest.h"

namespace kd::copy {
namespace {

// Reads the file with positioned reads of 1 MiB from its first byte.
class PositionedReader {
 public:
  explicit PositionedReader(int fd) : fd_(fd), buffer_(new (std::nothrow) unsigned char[kBuffer]) {}
  bool ok() const { return buffer_ != nullptr; }
  ReadAhead::Read next() {
    const ssize_t n = retryOnEintr([&] { return ::pread(fd_, buffer_.get(), kBuffer, at_); });
    if (n < 0) return {nullptr, -1, errno};
    at_ += n;
    return {buffer_.get(), n, 0};
  }

 private:
  static constexpr std::size_t kBuffer = 1 << 20;
  const int fd_;
  const std::unique_ptr<unsigned char[]> buffer_;
  off_t at_ = 0;
};

template <class Reader>
std::optional<std::vector<std::string>> digestWith(Reader& reader, std::vector<Digest>& digests,
                                                   const std::function<bool(std::uint64_t)>& read,
                                                   DigestFailure& failure) {
  if (!reader.ok()) {
    failure = {DigestFailure::What::NoMemory, ENOMEM, {}};
    return std::nullopt;
  }
  for (;;) {
    const ReadAhead::Read chunk = reader.next();
    if (chunk.length == 0) break;
    if (chunk.length < 0) {
      failure = {DigestFailure::What::Read, chunk.error, {}};
      return std::nullopt;
    }
    for (Digest& digest : digests) {
      if (!digest.update(chunk.data, static_cast<std::size_t>(chunk.length))) {
        failure = {DigestFailure::What::Read, 0, std::string(Digest::name(digest.kind()))};
        return std::nullopt;
      }
    }
    if (read && !read(static_cast<std::uint64_t>(chunk.length))) {
      failure = {DigestFailure::What::Stopped, 0, {}};
      return std::nullopt;
    }
  }
  std::vector<std::string> texts;
  for (const Digest& digest : digests) {
    std::optional<std::string> text = digest.text();
    if (!text) {
      failure = {DigestFailure::What::Final, 0, std::string(Digest::name(digest.kind()))};
      return std::nullopt;
    }
    texts.push_back(std::move(*text));
  }
  return texts;
}

}  // namespace

std::string DigestFailure::text() const {
  switch (what) {
    case What::Unavailable:
      return "the " + kind + " digest is not available";
    case What::NoMemory:
      return "out of memory";
    case What::Read:
      return error != 0 ? std::string("a read failed: ") + std::strerror(error)
                        : "the " + kind + " digest could not be fed";
    case What::Stopped:
      return "stopped";
    case What::Final:
      return "the digest failed";
  }
  return {};
}

std::optional<std::vector<std::string>> digestsOfFile(
    int fd, Reading reading, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, DigestFailure& failure) {
  std::vector<Digest> digests;
  for (const KdFileManager::CopyDigest& kind : kinds) {
    const std::optional<Digest::Kind> named = Digest::kindNamed(kind.name);
    if (named) digests.emplace_back(*named);
    if (!named || !kind.make || !digests.back().ok()) {
      failure = {DigestFailure::What::Unavailable, 0, kind.name};
      return std::nullopt;
    }
  }
  if (reading == Reading::Ahead) {
    ReadAhead reader(fd);
    return digestWith(reader, digests, read, failure);
  }
  PositionedReader reader(fd);
  return digestWith(reader, digests, read, failure);
}

std::optional<std::vector<std::string>> digestsOfOpenFile(
    int fd, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, std::string& error) {
  DigestFailure failure;
  std::optional<std::vector<std::string>> digests =
      digestsOfFile(fd, Reading::Positioned, kinds, read, failure);
  if (!digests) error = failure.text();
  return digests;
}

std::optional<std::string> digestOfOpenFile(int fd, const KdFileManager::CopyDigest& kind,
                                            const std::function<bool(std::uint64_t)>& read,
                                            std::string& error) {
  std::optional<std::vector<std::string>> digests = digestsOfOpenFile(fd, {kind}, read, error);
  if (!digests) return std::nullopt;
  return std::move(digests->front());
}

}  // namespace kd::copy
