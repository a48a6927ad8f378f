#include "common/ReadAhead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <system_error>

#include "common/UniqueFd.h"

namespace kd {

namespace {

constexpr std::size_t kReadsPerSlot = 16;
constexpr std::size_t kSlotSize = kReadsPerSlot * ReadAhead::kReadSize;  // 1 MiB
constexpr std::size_t kSlots = 4;
// How far ahead of the reader thread the kernel is asked to fetch, so that a
// slow device works on the next window while this one is read and digested.
constexpr off_t kHintWindow = off_t{8} << 20;

}  // namespace

// One slot of the ring: up to kReadsPerSlot reads laid end to end. The reader
// thread fills a slot that is not full; the consumer reads a full one.
struct ReadAhead::Slot {
  std::unique_ptr<unsigned char[]> data;
  std::array<ssize_t, kReadsPerSlot> lengths{};
  int error = 0;  // errno of a failed read (the slot's last)
  std::size_t count = 0;
  bool full = false;  // guarded by the ReadAhead's mu_
};

ReadAhead::ReadAhead(int fd) : fd_(fd) {
  struct stat st {};
  const bool seekable = ::fstat(fd, &st) == 0 &&
                        (S_ISBLK(st.st_mode) ||
                         (S_ISREG(st.st_mode) && static_cast<std::size_t>(st.st_size) > kSlotSize));
  if (seekable) {
    for (std::size_t i = 0; i < kSlots; ++i) {
      auto slot = std::unique_ptr<Slot>(new (std::nothrow) Slot);
      if (slot) slot->data.reset(new (std::nothrow) unsigned char[kSlotSize]);
      if (!slot || !slot->data) break;
      slots_.push_back(std::move(slot));
    }
    if (slots_.size() == kSlots) {
      try {
        thread_ = std::thread([this] { readLoop(); });
        return;
      } catch (const std::system_error&) {
        // Read on the caller's thread instead.
      }
    }
  }
  slots_.resize(std::min<std::size_t>(slots_.size(), 1));
  if (slots_.empty()) {
    auto slot = std::unique_ptr<Slot>(new (std::nothrow) Slot);
    if (slot) slot->data.reset(new (std::nothrow) unsigned char[kReadSize]);
    if (slot && slot->data) slots_.push_back(std::move(slot));
  }
}

ReadAhead::~ReadAhead() {
  {
    MutexLock lock(mu_);
    stop_ = true;
  }
  freed_.notify_all();
  if (thread_.joinable()) thread_.join();
}

ReadAhead::Read ReadAhead::readNow() {
  Read r;
  if (slots_.empty()) {
    r.length = -1;
    r.error = ENOMEM;
  } else {
    r.data = slots_[0]->data.get();
    r.length = retryOnEintr([&] { return ::read(fd_, slots_[0]->data.get(), kReadSize); });
    if (r.length < 0) r.error = errno;
  }
  if (r.length <= 0) {
    isFinished_ = true;
    finished_ = r;
  }
  return r;
}

ReadAhead::Read ReadAhead::next() {
  if (isFinished_) return finished_;
  if (!thread_.joinable()) return readNow();
  for (;;) {
    Slot& slot = *slots_[consumerSlot_];
    if (!consumerHoldsSlot_) {
      MutexLock lock(mu_);
      while (!slot.full) lock.wait(filled_);
      consumerHoldsSlot_ = true;
      consumerRead_ = 0;
      consumerOffset_ = 0;
    }
    if (consumerRead_ < slot.count) {
      Read r;
      r.data = slot.data.get() + consumerOffset_;
      r.length = slot.lengths[consumerRead_++];
      if (r.length > 0) {
        consumerOffset_ += static_cast<std::size_t>(r.length);
      } else {
        r.error = r.length < 0 ? slot.error : 0;
        isFinished_ = true;
        finished_ = r;
      }
      return r;
    }
    {
      MutexLock lock(mu_);
      slot.full = false;
    }
    freed_.notify_one();
    consumerHoldsSlot_ = false;
    consumerSlot_ = (consumerSlot_ + 1) % slots_.size();
  }
}

void ReadAhead::readLoop() {
  off_t position = ::lseek(fd_, 0, SEEK_CUR);
  if (position < 0) position = 0;
  // Hints only: they fail harmlessly where they do not apply.
  ::posix_fadvise(fd_, position, 0, POSIX_FADV_SEQUENTIAL);
  ::posix_fadvise(fd_, position, 2 * kHintWindow, POSIX_FADV_WILLNEED);
  off_t nextHint = position + kHintWindow;
  for (std::size_t index = 0;; index = (index + 1) % slots_.size()) {
    Slot& slot = *slots_[index];
    {
      MutexLock lock(mu_);
      while (!stop_ && slot.full) lock.wait(freed_);
      if (stop_) return;
    }
    bool last = false;
    std::size_t offset = 0;
    slot.count = 0;
    while (slot.count < kReadsPerSlot && !last) {
      const ssize_t n =
          retryOnEintr([&] { return ::read(fd_, slot.data.get() + offset, kReadSize); });
      slot.lengths[slot.count++] = n;
      if (n <= 0) {
        slot.error = n < 0 ? errno : 0;
        last = true;
        break;
      }
      offset += static_cast<std::size_t>(n);
      position += n;
      if (position >= nextHint) {
        ::posix_fadvise(fd_, nextHint + kHintWindow, kHintWindow, POSIX_FADV_WILLNEED);
        nextHint += kHintWindow;
      }
    }
    {
      MutexLock lock(mu_);
      slot.full = true;
    }
    filled_.notify_one();
    if (last) return;
  }
}

}  // namespace kd
