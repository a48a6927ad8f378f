// Reads a file front to back ahead of its consumer, so that reading overlaps
// with what the consumer does with the data (digesting, writing).
//
// The consumer sees every read(2) the reader made, one at a time and in order,
// with its exact length: a short read stays a short read. A regular file or
// block device is read by a thread of the reader's own, in reads of 64 KiB
// into a ring of a few MiB, with the kernel asked to fetch further ahead;
// files of at most one slot, and pipes, sockets and character devices (whose
// reads may wait on a writer without end), are read on the consumer's thread
// when it asks. Memory stays bounded by the ring whatever the file's size.
//
// Ownership: the reader does not own the descriptor, which must stay open
// until the reader is gone; the reader owns its buffers and its thread, which
// it stops and joins when destroyed. Threads: one consumer thread calls next().
#pragma once

#include "../KdExport.h"

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "ThreadAnnotations.h"

namespace kd {

class KD_EXPORT ReadAhead {
 public:
  // The size of one read.
  static constexpr std::size_t kReadSize = 65536;

  // One read's result: `length` bytes at `data`, or the end (length 0), or a
  // failure (length -1, `error` holding errno). After the end or a failure,
  // next() returns that result again.
  struct Read {
    const unsigned char* data = nullptr;
    ssize_t length = 0;
    int error = 0;
  };

  // Starts reading `fd` from its current position. Never throws: when no
  // memory or thread is to be had, it falls back to reading on the caller's
  // thread (and, without memory, to failing reads with ENOMEM).
  explicit ReadAhead(int fd);
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  // The next read; its data stays valid until the following call.
  Read next();

  // False when not even one read's buffer could be allocated; every read
  // then fails with ENOMEM.
  bool ok() const { return !slots_.empty(); }

  // Whether a thread of its own reads ahead (for tests and measurements).
  bool readsAhead() const { return thread_.joinable(); }

 private:
  struct Slot;
  void readLoop();
  Read readNow();

  const int fd_;
  std::vector<std::unique_ptr<Slot>> slots_;  // the ring; the consumer's alone when not threaded
  std::size_t consumerSlot_ = 0;              // consumer thread only
  std::size_t consumerRead_ = 0;              // index of the next read in that slot
  std::size_t consumerOffset_ = 0;            // where that read's data starts
  bool consumerHoldsSlot_ = false;            // consumer thread only
  Read finished_;                             // the end or failure, once seen
  bool isFinished_ = false;

  Mutex mu_;
  std::condition_variable filled_;  // a slot became full
  std::condition_variable freed_;   // a slot became free, or stop was asked
  bool stop_ KD_GUARDED_BY(mu_) = false;
  std::thread thread_;
};

}  // namespace kd
