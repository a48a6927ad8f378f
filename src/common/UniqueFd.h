// An owned file descriptor, closed when the owner goes away.
//
// Ownership: exactly one UniqueFd owns a descriptor; moves transfer it. Not
// thread-safe: one thread at a time per object.
#pragma once

#include "../KdExport.h"

#include <unistd.h>
#include <cerrno>

#include <utility>

namespace kd {

class KD_EXPORT UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(fd_, -1); }
  // Closes the owned descriptor (never retried: a failed close has still closed it).
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Repeats a system call while it fails with EINTR.
template <class F>
auto retryOnEintr(F&& f) -> decltype(f()) {
  decltype(f()) r;
  do {
    r = f();
  } while (r == -1 && errno == EINTR);
  return r;
}

}  // namespace kd
