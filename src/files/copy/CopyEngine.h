// The verified-copy engine: one source to several destinations in one pass,
// with each destination read back and compared with the source's bytes, the
// source digested, and the source's metadata put on every destination. It
// works on descriptors only: the caller opens (and checks) the source and the
// destinations, tells what it wants to of the progress and the outcome, and
// drives any delegate. KdFileManager's copies and the offload are its callers.
//
// Plain functions and values; see each for its threads.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "platform/FileMetadata.h"

namespace kd::copy {

// For tests: called on a destination's stage after each of its writes and
// before that stretch is read back, with the destination's descriptor and the
// stretch; what it does to the file is what the read-back finds. Set it
// before a copy and clear it (nullptr) after, never while one runs.
using AfterWriteHook = void (*)(int fd, std::uint64_t offset, std::size_t length);
void setAfterWriteHookForTesting(AfterWriteHook hook);

// The unit of accounting: progress, totals and messages go by chunks of this.
constexpr std::size_t kChunk = 65536;

// The open source. The engine reads `fd` from its current position to its
// end and leaves it open; `st` is its status as opened (its size says how much
// a whole copy is). The rest goes on every destination of a whole copy.
struct Source {
  int fd = -1;
  struct stat st {};
  std::optional<FileDate> creationDate;
  bool keepPermissions = false;  // the permission bits too (never set-id or sticky)
};

// One destination, opened by the caller for reading and writing and empty.
// The descriptor is handed over: the engine flushes and closes it. `name` in
// the open folder `folder` (AT_FDCWD: `name` is a path) is checked at the
// end to still lead to the file written. `path` is for the caller's messages.
struct Target {
  std::string path;
  int folder = AT_FDCWD;
  std::string name;
  UniqueFd fd;
};

// What one 64 KiB chunk did, told on the copying thread, chunk by chunk in
// order once every destination is done with it.
struct Chunk {
  std::size_t length = 0;   // the chunk's bytes
  std::uint64_t total = 0;  // the bytes copied with this chunk
  struct PerTarget {
    std::size_t written = 0;  // of `length`
    int readBackError = 0;    // errno of a failed read-back of its stretch
  };
  std::vector<PerTarget> targets;  // in the order given
};
// Hears every chunk; false stops the copy.
using OnChunk = std::function<bool(const Chunk&)>;

// What became of one destination.
struct TargetOutcome {
  bool written = false;   // every write, the flush and the close succeeded, and not `gone`
  bool verified = false;  // written, and (with verification) read back equal to the source
  // With verification: the source's digest when the copy reads back equal;
  // otherwise the digest of what the copy holds (absent when unreadable).
  std::optional<std::string> digest;
  int error = 0;          // errno of the failed write, or else of the failed flush or close
  int writeError = 0;     // errno of the first failed write
  int flushError = 0;     // errno of a failed flush or close (ENOENT when `gone`)
  int readBackError = 0;  // errno of the first failed read-back
  bool gone = false;      // its name no longer led to the file written
  std::vector<std::string> attributesNotKept;  // the source's attributes it could not take
  std::string metadataError;                   // why a date could not be set
};

// The whole copy.
struct Outcome {
  bool outOfMemory = false;  // nothing was copied: no memory for the ring
  int readError = 0;         // errno of a failed read of the source
  std::uint64_t bytes = 0;   // bytes accounted
  // The source's digest in the verifying kind (absent without verification
  // or when it failed) and in each further kind.
  std::optional<std::string> sourceDigest;
  std::vector<std::optional<std::string>> moreSourceDigests;
  std::vector<TargetOutcome> targets;  // in the order given
};

// Copies the source to every target. `kind` verifies (an empty maker: no
// verification), `moreKinds` only digest the source. `cancellation` stops
// the copy (and every later write) once cancelled; the caller may cancel it
// from any thread. Runs on the caller's thread, with stage threads of its
// own for files larger than two chunks; blocks until every target is closed.
// Throws only what allocation throws (std::bad_alloc), with every thread of
// the copy ended; the library's operations catch it.
Outcome copyDescriptors(const Source& source, std::vector<Target> targets,
                        const KdFileManager::CopyDigest& kind,
                        const std::vector<KdFileManager::CopyDigest>& moreKinds,
                        const std::shared_ptr<KdCancellation>& cancellation,
                        const OnChunk& onChunk);

// Runs `job` on one of the threads the engine keeps for its copies (a new
// one when none is idle), so that a caller copying many files beside each
// other does not start a thread for each. False when no thread could be had.
bool runOnKeptThread(std::function<void()> job);

// While it lives, every copy made on the thread that made it calls
// `readDone`, on that thread, once the copy has read its source to the end
// or stopped reading, before its destinations are finished: a caller that
// copies files beside each other starts reading the next one then. One at a
// time per thread.
class WhenSourceRead {
 public:
  explicit WhenSourceRead(std::function<void()> readDone);
  ~WhenSourceRead();
  WhenSourceRead(const WhenSourceRead&) = delete;
  WhenSourceRead& operator=(const WhenSourceRead&) = delete;

 private:
  std::function<void()> readDone_;
};

// A copy's progress told straight to its caller, on the copying thread, with
// no delegate and no work queue between: `bytes` hears the running total at
// each progress step and once at the end; `stop`, read after every chunk,
// stops the copy once it is true.
struct DirectProgress {
  std::function<void(std::uint64_t)> bytes;
  const std::atomic<bool>* stop = nullptr;
};

// KdFileManager::copyFileToOpenDestinations with its progress told directly
// (the same checks, messages and outcome).
KdFileManager::CopyResult copyToOpenFiles(const std::string& source,
                                          std::vector<KdFileManager::OpenDestination> destinations,
                                          const KdFileManager::CopyDigest& digest,
                                          const std::vector<KdFileManager::CopyDigest>& moreDigests,
                                          bool keepPermissions, const DirectProgress& progress);

}  // namespace kd::copy
