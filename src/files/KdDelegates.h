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

#include "../KdExport.h"

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "../common/PropertyList.h"

// A flag shared between a working thread and the tasks that may stop it. It
// is only ever set, never cleared; the working thread reads it between
// chunks. Held by shared pointer: it lives as long as the longest holder.
class KD_EXPORT KdCancellation {
 public:
  static std::shared_ptr<KdCancellation> make() { return std::make_shared<KdCancellation>(); }
  void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
  bool cancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }

 private:
  std::atomic<bool> cancelled_{false};
};

// The delegate of the whole-file hashes.
struct KD_EXPORT KdChecksumDelegate {
  // Asked with the file's path every 50 MiB of the file; false stops the
  // hash, which then returns nothing. Sent on a worker thread, never on the
  // hashing thread, possibly after the hash has finished.
  std::function<bool(const std::string& path)> checksumShouldContinue;

  bool respondsToChecksumShouldContinue() const {
    return static_cast<bool>(checksumShouldContinue);
  }
};

// What a verified copy hands to its delegate: the settings dictionary of one
// copy. Each field is one of the dictionary's keys (named beside it); an
// absent optional, an empty `std::any` or a null delegate is a key that is not
// set. `values()` gives the keys that hold property-list values as a
// dictionary.
//
// Ownership: a plain value. The copying thread owns the copy's own settings
// and changes them as it goes; every task it queues gets a snapshot of its
// own, taken when the task is queued, so nothing is shared between threads.
// The free objects are copied into each snapshot: pass a shared pointer for
// anything large or anything that must stay one object.
struct KdFileCopyDelegate;
struct KD_EXPORT KdCopySettings {
  std::string source;                                          // "source"
  std::vector<std::string> destinations;                       // "destinations", as given
  std::string operationtype = "copy";                          // "operationtype"
  std::shared_ptr<const KdFileCopyDelegate> delegate;          // "delegate", when given
  std::any object;                                             // "object", when given
  std::any object2;                                            // "object2", when given
  std::optional<std::string> sourceChecksum;                   // "sourceChecksum"
  std::optional<std::string> destChecksum;                     // "destChecksum"
  std::optional<std::vector<std::string>> destChecksums;       // "destChecksums"
  std::optional<std::vector<std::string>> failedDestinations;  // "failedDestinations"

  // The keys that are set, except "delegate", "object" and "object2".
  kd::PlistDict values() const {
    kd::PlistDict d;
    d["source"] = source;
    kd::PlistArray paths(destinations.begin(), destinations.end());
    d["destinations"] = std::move(paths);
    d["operationtype"] = operationtype;
    if (sourceChecksum) d["sourceChecksum"] = *sourceChecksum;
    if (destChecksum) d["destChecksum"] = *destChecksum;
    if (destChecksums)
      d["destChecksums"] = kd::PlistArray(destChecksums->begin(), destChecksums->end());
    if (failedDestinations)
      d["failedDestinations"] =
          kd::PlistArray(failedDestinations->begin(), failedDestinations->end());
    return d;
  }
};

// The delegate of the verified copy. Progress and the question come on a
// kd::WorkQueue thread, each with its own snapshot of the settings, in any
// order and possibly after the copy has returned; the final progress, the
// verification failures and the end come on the copying thread.
struct KD_EXPORT KdFileCopyDelegate {
  // The bytes copied so far to every destination, at each progress step and
  // once more at the end with the final total.
  std::function<void(std::uint64_t total, const KdCopySettings& settings)> fileCopyBytesWritten;
  // Asked at each progress step; false stops the copy, which then returns
  // false.
  std::function<bool(const KdCopySettings& settings)> fileCopyShouldContinue;
  // Once for each destination that failed verification, with "destChecksum"
  // set to its digest.
  std::function<void(const KdCopySettings& settings, const std::string& file)>
      fileCopyVerificationFailed;
  // After the copy succeeded and the metadata step ran.
  std::function<void(const KdCopySettings& settings)> fileCopyFinished;
};
