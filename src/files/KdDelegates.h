// The delegates of KdFileManager's long operations, and the cancellation cell
// they share with the working thread.
//
// A delegate is a set of optional methods: each is a function slot that may be
// left empty, and an empty slot means the delegate does not respond to that
// method, so it is never sent. Fill only the slots you need; a slot may capture
// whatever state it wants (capture shared pointers, not references to locals:
// a method may be sent after the operation has returned).
//
// Ownership: operations take delegates by shared pointer and every task they
// queue holds its own reference, so a delegate lives until the last method
// sent to it has returned. Threads: methods are sent on the threads each
// operation names (often a thread of kd::WorkQueue, several at once); a
// delegate must be safe to call from those threads. A method that throws is
// reported to the application log and counts as not answered.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

// A flag shared between a working thread and the tasks that may stop it. It
// is only ever set, never cleared; the working thread reads it between
// chunks. Held by shared pointer: it lives as long as the longest holder.
class KdCancellation {
 public:
  static std::shared_ptr<KdCancellation> make() { return std::make_shared<KdCancellation>(); }
  void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
  bool cancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> cancelled_{false};
};

// The delegate of the whole-file hashes.
struct KdChecksumDelegate {
  // Asked with the file's path every 50 MiB of the file; false stops the
  // hash, which then returns nothing. Sent on a worker thread, never on the
  // hashing thread, possibly after the hash has finished.
  std::function<bool(const std::string& path)> checksumShouldContinue;

  bool respondsToChecksumShouldContinue() const {
    return static_cast<bool>(checksumShouldContinue);
  }
};
