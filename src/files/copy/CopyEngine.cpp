// The verified-copy engine.
//
// The caller's thread reads the source into a ring of slots; each
// destination has a thread that writes every slot, reads it back from the
// file and compares what it read with the slot, and one more thread digests
// the source (one more again for each further kind). A slot is used again
// only when every one of them is done with it, so each read-back is compared
// with the source's bytes as they were read for this copy; and it is then
// accounted, on the caller's thread, in 64 KiB chunks, in the order a
// chunk-by-chunk copy would give. A copy's digest equals the source's exactly
// when its bytes do, so a copy is digested only when it differs, to tell what
// it holds. The threads are kept from one copy to the next. Tiny files are
// copied without threads, each slot handed to every stage in turn.
#include "files/copy/CopyEngine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <new>
#include <system_error>
#include <thread>

#include "common/ThreadAnnotations.h"
#include "files/copy/FileDigest.h"
#include "platform/FileIO.h"
#include "platform/Platform.h"

namespace kd::copy {
namespace {

std::atomic<AfterWriteHook> afterWriteHook{nullptr};
// The calling thread's WhenSourceRead, if any.
thread_local const std::function<void()>* sourceRead = nullptr;

constexpr std::size_t kChunksPerSlot = 8;
constexpr std::size_t kSlotSize = kChunk * kChunksPerSlot;  // 512 KiB
constexpr std::size_t kSlots = 8;                           // a ring of 4 MiB
// Up to this size a copy runs on the caller's thread alone: handing a slot to
// the threads costs more than they gain.
constexpr std::uint64_t kThreadedFrom = 2 * kChunk;

// Reads until `length` bytes or the end; the bytes read, and errno of a
// failure in `error`.
std::size_t readFully(int fd, unsigned char* into, std::size_t length, off_t at, bool positioned,
                      int& error) {
  std::size_t done = 0;
  error = 0;
  while (done < length) {
    const ssize_t n = kd::retryOnEintr([&] {
      return positioned ? ::pread(fd, into + done, length - done, at + static_cast<off_t>(done))
                        : ::read(fd, into + done, length - done);
    });
    if (n < 0) {
      error = errno;
      break;
    }
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

// Writes `length` bytes at `at`, going on after partial writes; the bytes
// written, and errno of a failure in `error`.
std::size_t writeFully(int fd, const unsigned char* from, std::size_t length, off_t at,
                       int& error) {
  std::size_t done = 0;
  error = 0;
  while (done < length) {
    const ssize_t n = kd::retryOnEintr(
        [&] { return ::pwrite(fd, from + done, length - done, at + static_cast<off_t>(done)); });
    if (n <= 0) {
      error = n < 0 ? errno : ENOSPC;
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  return done;
}

std::string errorText(int error) {
  return std::strerror(error);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Buffers of one slot's size kept from one copy to the next, so that copying
// many files does not map, fault in and unmap fresh memory for each. Holds at
// most kKept buffers (the rings and read-backs of the three copies that an
// offload runs beside each other, each with two destinations);
// more are freed. Thread-safe.
class SlotBuffers {
 public:
  struct Return {
    void operator()(unsigned char* buffer) const { SlotBuffers::shared().give(buffer); }
  };
  using Buffer = std::unique_ptr<unsigned char[], Return>;

  static SlotBuffers& shared() {
    static SlotBuffers* buffers = new SlotBuffers;  // never destroyed: copies may outlive main
    return *buffers;
  }
  // A buffer of kSlotSize bytes; empty when there is no memory.
  Buffer take() {
    {
      kd::MutexLock lock(mu_);
      if (!free_.empty()) {
        unsigned char* buffer = free_.back();
        free_.pop_back();
        return Buffer(buffer);
      }
    }
    return Buffer(new (std::nothrow) unsigned char[kSlotSize]);
  }

 private:
  static constexpr std::size_t kKept = 32;

  void give(unsigned char* buffer) {
    {
      kd::MutexLock lock(mu_);
      if (free_.size() < kKept) {
        free_.push_back(buffer);
        return;
      }
    }
    delete[] buffer;
  }

  kd::Mutex mu_;
  std::vector<unsigned char*> free_ KD_GUARDED_BY(mu_);
};

// Threads kept from one copy to the next to run the stages of the copies'
// pipelines, so that copying many files does not start and end threads for
// each (and whole copies run beside each other, runOnKeptThread). It starts
// a thread whenever no idle one can take a job, and keeps at most kKept idle. Never destroyed (idle
// threads may outlive main); callable from any thread.
class StageThreads {
 public:
  using Job = std::function<void()>;
  static StageThreads& shared() {
    static StageThreads* threads = new StageThreads;
    return *threads;
  }
  // Runs `job` on a thread of its own; false when no thread could be had.
  bool run(Job job) {
    {
      kd::MutexLock lock(mu_);
      if (idle_ > jobs_.size()) {
        jobs_.push_back(std::move(job));
        wake_.notify_one();
        return true;
      }
    }
    try {
      std::thread([this, first = std::move(job)]() mutable { work(std::move(first)); }).detach();
    } catch (const std::system_error&) {
      return false;
    }
    return true;
  }

 private:
  static constexpr std::size_t kKept = 8;

  void work(Job job) {
    for (;;) {
      job();
      job = nullptr;
      kd::MutexLock lock(mu_);
      if (idle_ >= kKept) return;
      ++idle_;
      while (jobs_.empty()) lock.wait(wake_);
      --idle_;
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
  }

  kd::Mutex mu_;
  std::condition_variable wake_;  // a job was queued
  std::deque<Job> jobs_ KD_GUARDED_BY(mu_);
  std::size_t idle_ KD_GUARDED_BY(mu_) = 0;  // threads waiting for a job
};

// One destination of a copy. Its stage alone touches it while the copy runs;
// the caller's thread reads it after that stage has ended.
struct Destination {
  std::string path;
  int folder = AT_FDCWD;  // the open folder that `name` is in; AT_FDCWD: `name` is the path
  std::string name;
  kd::UniqueFd fd;
  bool verifying = false;    // read back and compared with the source
  bool differs = false;      // what was read back is not the source's bytes
  std::uint64_t extent = 0;  // the bytes handed to it: the size the copy must have
  // With `differs`, the digest of what the copy holds; absent when it
  // cannot be read.
  std::optional<std::string> copyDigest;
  SlotBuffers::Buffer readBack;
  int writeError = 0;                          // errno of the first failed write
  int flushError = 0;                          // errno of a failed flush or close
  bool gone = false;                           // its name no longer leads to the file written
  int readBackError = 0;                       // errno of the first failed read-back
  std::vector<std::string> attributesNotKept;  // the source's attributes it could not take
  std::string metadataError;                   // why a date could not be set
};

// What one destination did with one slot, read when the slot is accounted.
struct SlotRecord {
  std::array<std::size_t, kChunksPerSlot> written{};  // bytes of each chunk written
  int readBackError = 0;                              // errno of a failed read-back
};

// One slot of the ring: the producer fills it, every stage reads it, and the
// caller's thread accounts it once all stages are done.
struct Slot {
  SlotBuffers::Buffer data;
  std::size_t length = 0;
  std::uint64_t offset = 0;
  std::vector<SlotRecord> records;  // one per destination
};

// One copy's pipeline. Owned by the copying call; its threads are joined
// before it goes. Stages 0 to n-1 are the destinations, the stages after
// them the source's digests (none without verification or further kinds).
class Pipeline {
 public:
  Pipeline(int source, const Source& metadata, std::vector<Destination>& destinations,
           std::vector<KdFileManager::CopyDigester*> sourceDigests,
           const KdFileManager::CopyDigest& kind, std::shared_ptr<KdCancellation> cancellation)
      : source_(source),
        metadata_(metadata),
        destinations_(destinations),
        kind_(kind),
        sourceDigests_(std::move(sourceDigests)),
        stages_(destinations.size() + sourceDigests_.size()),
        cancellation_(std::move(cancellation)),
        consumed_(stages_, 0) {}
  ~Pipeline() { stopThreads(); }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  // False when the memory could not be had.
  bool allocate() {
    for (std::size_t i = 0; i < kSlots; ++i) {
      Slot& slot = slots_[i];
      slot.data = SlotBuffers::shared().take();
      if (!slot.data) return false;
      slot.records.resize(destinations_.size());
    }
    for (Destination& d : destinations_) {
      if (!d.verifying) continue;
      d.readBack = SlotBuffers::shared().take();
      if (!d.readBack) return false;
    }
    return true;
  }

  // Accounts one chunk: called on the caller's thread, in order, for every
  // chunk every stage has finished with. False stops the copy.
  using Account = std::function<bool(const Slot& slot, std::size_t chunk)>;

  // Runs the copy to the end of the source, a read error or cancellation.
  // Returns errno of a read error, 0 otherwise.
  int run(bool threaded, const Account& account) {
    if (threaded) startThreads();
    std::uint64_t seq = 0, accounted = 0, read = 0;
    int readError = 0;
    bool stopAccounting = false;
    auto accountUpTo = [&](std::uint64_t upTo) {
      for (; accounted < upTo; ++accounted) {
        waitConsumed(accounted + 1);
        const Slot& slot = slots_[accounted % kSlots];
        const std::size_t chunks = (slot.length + kChunk - 1) / kChunk;
        for (std::size_t c = 0; c < chunks && !stopAccounting; ++c)
          if (!account(slot, c)) stopAccounting = true;
      }
    };
    for (;;) {
      if (cancellation_->cancelled() || stopAccounting) break;
      if (seq >= kSlots) accountUpTo(seq - kSlots + 1);
      if (cancellation_->cancelled() || stopAccounting) break;
      Slot& slot = slots_[seq % kSlots];
      slot.offset = seq * kSlotSize;
      slot.length = readFully(source_, slot.data.get(), kSlotSize, 0, false, readError);
      if (slot.length == 0) break;
      read += slot.length;
      publish(seq, threaded);
      ++seq;
      if (slot.length < kSlotSize) break;
    }
    if (sourceRead) (*sourceRead)();
    {
      kd::MutexLock lock(mu_);
      complete_ = readError == 0 && !stopAccounting &&
                  read >= static_cast<std::uint64_t>(metadata_.st.st_size);
    }
    closeRing();
    accountUpTo(seq);
    stopThreads();
    if (!threaded || inlineAfterFailure_) {
      for (std::size_t d = 0; d < destinations_.size(); ++d) finishDestination(d);
    }
    return readError;
  }

 private:
  void startThreads() {
    for (std::size_t stage = 0; stage < stages_; ++stage) {
      {
        kd::MutexLock lock(mu_);
        ++running_;
      }
      const bool started = StageThreads::shared().run([this, stage] {
        work(stage);
        // Told under the lock: once it is released, the pipeline may go.
        kd::MutexLock lock(mu_);
        --running_;
        ended_cv_.notify_all();
      });
      if (started) continue;
      {
        kd::MutexLock lock(mu_);
        --running_;
      }
      // Too few threads: run inline. The ones started end on the closed ring
      // and leave their destinations to the caller's thread.
      inlineAfterFailure_ = true;
      stopThreads();
      return;
    }
  }

  // Closes the ring and waits until every stage has ended.
  void stopThreads() {
    closeRing();
    kd::MutexLock lock(mu_);
    while (running_ != 0) lock.wait(ended_cv_);
  }

  void closeRing() {
    {
      kd::MutexLock lock(mu_);
      closed_ = true;
    }
    published_cv_.notify_all();
  }

  void publish(std::uint64_t seq, bool threaded) {
    if (!threaded || inlineAfterFailure_) {
      for (std::size_t stage = 0; stage < stages_; ++stage) process(stage, slots_[seq % kSlots]);
      kd::MutexLock lock(mu_);
      for (std::uint64_t& c : consumed_) c = seq + 1;
      published_ = seq + 1;
      return;
    }
    {
      kd::MutexLock lock(mu_);
      published_ = seq + 1;
    }
    published_cv_.notify_all();
  }

  // Waits until every stage has finished `count` slots.
  void waitConsumed(std::uint64_t count) {
    kd::MutexLock lock(mu_);
    while (!allConsumed(count)) lock.wait(consumed_cv_);
  }

  bool allConsumed(std::uint64_t count) const KD_REQUIRES(mu_) {
    for (const std::uint64_t c : consumed_)
      if (c < count) return false;
    return true;
  }

  void work(std::size_t stage) {
    for (std::uint64_t seq = 0;; ++seq) {
      {
        kd::MutexLock lock(mu_);
        while (published_ <= seq && !closed_) lock.wait(published_cv_);
        if (published_ <= seq) break;
      }
      process(stage, slots_[seq % kSlots]);
      bool last = false;  // the last stage done with the slot: the caller may wait for it
      {
        kd::MutexLock lock(mu_);
        consumed_[stage] = seq + 1;
        last = allConsumed(seq + 1);
      }
      if (last) consumed_cv_.notify_all();
    }
    if (stage < destinations_.size() && !inlineAfterFailure_) finishDestination(stage);
  }

  void process(std::size_t stage, Slot& slot) {
    if (stage >= destinations_.size()) {
      sourceDigests_[stage - destinations_.size()]->update(slot.data.get(), slot.length);
      return;
    }
    Destination& d = destinations_[stage];
    SlotRecord& record = slot.records[stage];
    record = SlotRecord();
    // A stop answer holds back every later write.
    if (cancellation_->cancelled()) return;
    const off_t at = static_cast<off_t>(slot.offset);
    int error = 0;
    std::size_t written = writeFully(d.fd.get(), slot.data.get(), slot.length, at, error);
    bool shortWrite = written < slot.length;
    if (!shortWrite) {
      for (std::size_t c = 0; c * kChunk < slot.length; ++c)
        record.written[c] = std::min(kChunk, slot.length - c * kChunk);
    } else {
      if (d.writeError == 0) d.writeError = error;
      // Chunks before the failure are whole; the failing one is short; each
      // later chunk is tried on its own, as the chunk-by-chunk copy would.
      const std::size_t failed = written / kChunk;
      for (std::size_t c = 0; c < failed; ++c) record.written[c] = kChunk;
      record.written[failed] = written - failed * kChunk;
      for (std::size_t c = failed + 1; c * kChunk < slot.length; ++c) {
        const std::size_t length = std::min(kChunk, slot.length - c * kChunk);
        record.written[c] = writeFully(d.fd.get(), slot.data.get() + c * kChunk, length,
                                       at + static_cast<off_t>(c * kChunk), error);
      }
    }
    d.extent = std::max<std::uint64_t>(d.extent, slot.offset + slot.length);
    if (!d.verifying) return;
    if (const AfterWriteHook hook = afterWriteHook.load())
      hook(d.fd.get(), slot.offset, slot.length);
    // The file is read again and compared with the slot, which holds the
    // source's bytes as read for this copy until every stage is done with
    // it. A short write, a short read-back or a failed one differs. It is
    // read a chunk at a time, so that what is compared is still in the
    // processor's cache.
    if (shortWrite) d.differs = true;
    for (std::size_t done = 0; done < slot.length;) {
      const std::size_t length = std::min(kChunk, slot.length - done);
      const std::size_t got = readFully(d.fd.get(), d.readBack.get(), length,
                                        at + static_cast<off_t>(done), true, record.readBackError);
      if (got != length || std::memcmp(d.readBack.get(), slot.data.get() + done, length) != 0) {
        d.differs = true;
        break;
      }
      done += length;
    }
    if (d.readBackError == 0) d.readBackError = record.readBackError;
  }

  // With the whole source copied: a byte past the end differs too; and a copy
  // that differs is digested as it now is, to tell what it holds.
  void checkLength(Destination& d) {
    if (!d.verifying) return;
    if (!d.differs) {
      unsigned char extra = 0;
      int error = 0;
      if (readFully(d.fd.get(), &extra, 1, static_cast<off_t>(d.extent), true, error) != 0 ||
          error != 0)
        d.differs = true;
    }
    if (d.differs && kind_.make) {
      std::string ignored;
      d.copyDigest = digestOfOpenFile(d.fd.get(), kind_, nullptr, ignored);
    }
  }

  // Puts the source's attributes, dates and (when asked) permission bits on
  // the open destination; through the descriptor, so that only the file
  // written gets them, whatever its name leads to by now.
  void applyMetadata(Destination& d) {
    kd::FileMetadata& files = kd::platform().fileMetadata();
    d.attributesNotKept = files.copyExtendedAttributes(metadata_.fd, d.fd.get());
    if (metadata_.creationDate)
      if (const Result<void> set = files.setCreationDateOf(d.fd.get(), *metadata_.creationDate);
          !set)
        d.metadataError = set.error().message();
    // A file system without permission bits (exFAT, FAT) keeps its own.
    if (metadata_.keepPermissions) ::fchmod(d.fd.get(), metadata_.st.st_mode & 0777);
    // The modification date with the file's own access time beside it:
    // exFAT through FUSE drops a modification date sent alone.
    struct stat own {};
    if (::fstat(d.fd.get(), &own) != 0) own.st_atim.tv_nsec = UTIME_OMIT;
    if (const int error = fileio::setTimes(d.fd.get(), own.st_atim, metadata_.st.st_mtim))
      d.metadataError = errorText(error);
  }

  // With the whole source copied, puts its metadata on the destination; then
  // flushes the destination to its device and closes it, unless the copy
  // was stopped (then it is only closed). A destination whose name no longer
  // leads to the file written (removed or replaced meanwhile) has failed: what
  // was written is no longer where it was asked for.
  void finishDestination(std::size_t index) {
    Destination& d = destinations_[index];
    if (!d.fd) return;
    if (!cancellation_->cancelled()) {
      if (complete_) applyMetadata(d);
      if (const int error = fileio::flushToDevice(d.fd.get())) d.flushError = error;
      if (complete_) checkLength(d);
      struct stat written {
      }, named{};
      if (::fstat(d.fd.get(), &written) == 0 &&
          (::fstatat(d.folder, d.name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 ||
           !sameFile(written, named))) {
        d.gone = true;
        if (d.flushError == 0) d.flushError = ENOENT;
      }
    }
    if (::close(d.fd.release()) != 0 && d.flushError == 0) d.flushError = errno;
  }

  const int source_;
  const Source& metadata_;
  std::vector<Destination>& destinations_;
  const KdFileManager::CopyDigest& kind_;  // the verifying kind, to digest a copy that differs
  const std::vector<KdFileManager::CopyDigester*> sourceDigests_;
  const std::size_t stages_;
  const std::shared_ptr<KdCancellation> cancellation_;
  std::array<Slot, kSlots> slots_;
  // Set before the ring closes, read by the stages after: the lock on mu_
  // orders the two.
  bool inlineAfterFailure_ = false;
  // Whether the whole source was read without a failure or a stop: set
  // before the ring closes, read after, like inlineAfterFailure_.
  bool complete_ = false;

  kd::Mutex mu_;
  std::condition_variable published_cv_;        // a slot was published, or the ring closed
  std::condition_variable consumed_cv_;         // every stage finished a slot
  std::condition_variable ended_cv_;            // a stage ended
  std::size_t running_ KD_GUARDED_BY(mu_) = 0;  // stages running on threads
  std::uint64_t published_ KD_GUARDED_BY(mu_) = 0;
  bool closed_ KD_GUARDED_BY(mu_) = false;
  std::vector<std::uint64_t> consumed_ KD_GUARDED_BY(mu_);  // per stage
};

}  // namespace

void setAfterWriteHookForTesting(AfterWriteHook hook) {
  afterWriteHook = hook;
}

WhenSourceRead::WhenSourceRead(std::function<void()> readDone) : readDone_(std::move(readDone)) {
  sourceRead = &readDone_;
}

WhenSourceRead::~WhenSourceRead() {
  sourceRead = nullptr;
}

bool runOnKeptThread(std::function<void()> job) {
  return StageThreads::shared().run(std::move(job));
}

Outcome copyDescriptors(const Source& source, std::vector<Target> targets,
                        const KdFileManager::CopyDigest& kind,
                        const std::vector<KdFileManager::CopyDigest>& moreKinds,
                        const std::shared_ptr<KdCancellation>& cancellation,
                        const OnChunk& onChunk) {
  Outcome outcome;
  fileio::readSequentially(source.fd);
  const bool verifying = static_cast<bool>(kind.make);
  std::vector<Destination> open;
  open.reserve(targets.size());
  for (Target& target : targets) {
    Destination& d = open.emplace_back();
    d.path = std::move(target.path);
    d.folder = target.folder;
    d.name = std::move(target.name);
    d.fd = std::move(target.fd);
    d.verifying = verifying;
  }
  std::unique_ptr<KdFileManager::CopyDigester> sourceDigest;
  if (verifying) sourceDigest = kind.make();
  // The further kinds digest the source only, each as a stage of its own.
  std::vector<std::unique_ptr<KdFileManager::CopyDigester>> moreSourceDigests;
  std::vector<KdFileManager::CopyDigester*> sourceDigests;
  if (sourceDigest) sourceDigests.push_back(sourceDigest.get());
  for (const KdFileManager::CopyDigest& more : moreKinds) {
    moreSourceDigests.push_back(more.make ? more.make() : nullptr);
    if (moreSourceDigests.back()) sourceDigests.push_back(moreSourceDigests.back().get());
  }

  std::uint64_t total = 0;
  {
    Pipeline pipeline(source.fd, source, open, std::move(sourceDigests), kind, cancellation);
    if (!pipeline.allocate()) {
      outcome.outOfMemory = true;
      return outcome;
    }
    Chunk chunk;
    chunk.targets.resize(open.size());
    auto account = [&](const Slot& slot, std::size_t c) {
      // After a stop answer the writers skip what is left: nothing more to tell.
      if (cancellation->cancelled()) return false;
      chunk.length = std::min(kChunk, slot.length - c * kChunk);
      for (std::size_t i = 0; i < open.size(); ++i)
        chunk.targets[i] = {slot.records[i].written[c], slot.records[i].readBackError};
      total += chunk.length;
      chunk.total = total;
      return onChunk(chunk);
    };
    outcome.readError =
        pipeline.run(static_cast<std::uint64_t>(source.st.st_size) >= kThreadedFrom, account);
  }
  outcome.bytes = total;
  if (sourceDigest) outcome.sourceDigest = sourceDigest->text();
  for (const auto& more : moreSourceDigests)
    outcome.moreSourceDigests.push_back(more ? more->text() : std::nullopt);
  for (Destination& d : open) {
    TargetOutcome& t = outcome.targets.emplace_back();
    t.writeError = d.writeError;
    t.flushError = d.flushError;
    t.readBackError = d.readBackError;
    t.gone = d.gone;
    t.written = d.writeError == 0 && d.flushError == 0;
    t.error = d.writeError != 0 ? d.writeError : d.flushError;
    if (verifying) {
      // Bytes equal to the source's have the source's digest.
      const bool matches = outcome.sourceDigest && !d.differs;
      t.digest = d.differs ? std::move(d.copyDigest) : outcome.sourceDigest;
      t.verified = t.written && matches;
    } else {
      t.verified = t.written;
    }
    t.attributesNotKept = std::move(d.attributesNotKept);
    t.metadataError = std::move(d.metadataError);
  }
  return outcome;
}

}  // namespace kd::copy
