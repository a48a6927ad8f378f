// The offload run's parts shared between its source files: a destination
// held open while the run goes on (Target), and the run itself (Run), whose
// steps are spread over Offload.cpp (each file copied and named),
// OffloadTargets.cpp (the destinations checked and opened) and
// OffloadFinish.cpp (files already there, the hash lists, the card read a
// second time, the transfer reports). Not part of the library's interface.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/ThreadAnnotations.h"
#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "files/copy/CopyEngine.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/Offload.h"
#include "files/offload/OffloadHistory.h"
#include "files/offload/OffloadInternal.h"

namespace kd::offload {

inline std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

inline std::string baseName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

inline std::chrono::system_clock::time_point timeOf(const struct timespec& t) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

inline bool sameItem(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// A folder of a destination held open, as it was when it was opened.
struct OpenFolder {
  std::string name;  // in the folder above; empty for the card's folder
  UniqueFd fd;
  struct stat st {};
  bool changed = false;  // a file took its name here: flushed before the hash list
};

// One destination while the run goes on. Owned by the run; one thread.
//
// The card's folder in the destination is held open for the whole run, and
// below it the folders of the current file, each opened from the one above
// without following links: every file is made, checked and named through
// these descriptors, never by a path that a link put in meanwhile could lead
// elsewhere.
struct Target {
  std::string folder;            // <destination>/<name>
  std::vector<OpenFolder> open;  // open[0] the card's folder, then the current file's folders
  OffloadDestination report;
  bool historyUsable = false;
  MhlHistory history;
  std::vector<MhlHash> entries;  // what this run adds to the hash list

  const OpenFolder& root() const { return open.front(); }
  int current() const { return open.back().fd.get(); }
  std::string currentPath() const {
    std::string path;
    for (std::size_t i = 1; i < open.size(); ++i) path += (i > 1 ? "/" : "") + open[i].name;
    return path;
  }

  // Opens the relative folder `relative` below the card's folder, making
  // what is missing; the reason when it cannot. A link or a file where a
  // folder of the card belongs would take the copy elsewhere: nothing goes
  // below it.
  std::optional<std::string> enter(const std::string& relative, bool make);

  // Whether every open folder still has its name in the one above: a folder
  // moved away or replaced during the run holds no copy that is where it
  // belongs. The reason when one does not; the folders stay open (the
  // caller's descriptors may still be in use).
  std::optional<std::string> intact() const;
  std::optional<std::size_t> firstMoved() const;

  // Closes the open folders from `size` on, each flushed to its device first
  // when a file took its name in it.
  void leaveTo(std::size_t size);

  // Flushes every folder in which a file took its name, so that the names
  // are on the device before the hash list that records them.
  void flushFolders();

  bool live() const { return report.lost.empty(); }
  void fail(std::string path, std::string reason, std::optional<std::string> source = {},
            std::optional<std::string> destination = {}) {
    report.failures.push_back(
        {std::move(path), std::move(reason), std::move(source), std::move(destination)});
  }
  // Gives the destination up; `remaining` files were not copied to it.
  void lose(std::string reason, std::uint64_t remaining) {
    if (!live()) return;
    report.lost = std::move(reason);
    report.filesMissing += remaining;
  }
  // Whether the destination's folder is still the one held open.
  std::optional<std::string> gone() const;
};

// The run itself; one per call of offloadCard, on the caller's thread. The
// copies run beside it, on the copy engine's kept threads, a few at a
// time (kFilesOnTheirWay); they touch only their own files and the progress.
class Run {
 public:
  using Clock = std::chrono::steady_clock;

  Run(const OffloadOptions& options, const OffloadProgress& progress);

  OffloadReport go();

 private:
  static std::string trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }

  bool stopAsked() const { return options_.stop && options_.stop->load(); }

  // Makes <destination>/<name> in every destination and reads its hash list.
  bool prepareTargets();

  // One copy being made: the destination, the temporary file's name in the
  // file's folder there, and its path for messages.
  struct Part {
    Target* target;
    std::string name;
    std::string path;
  };

  // A file on its way: its copies opened, and its copy running (`copied`
  // valid) unless none was needed. Made by startFile, ended by finishFile, in
  // the card's order.
  struct Pending {
    std::size_t index = 0;
    std::vector<Part> copyTo;
    std::vector<Target*> confirm;  // destinations where a file of its size is already
    std::future<KdFileManager::CopyResult> copied;
    std::uint64_t told = 0;  // its bytes told to the progress (by the copy's thread, then here)
    bool read = false;       // its card file read to the end, or its copy over; under progressMu_
  };
  // Marks the file's card file read; waits until it is.
  void markRead(Pending& pending);
  void waitRead(const Pending& pending);

  // At most this many files on their way at a time.
  static constexpr std::size_t kFilesOnTheirWay = 3;

  // Opens the file's copies in every live destination and starts its copy.
  // `before` are the files before it, in the same folder, still on their
  // way: where one has a copy or a file to confirm, the folders held open
  // are theirs and are left as they are (a folder moved meanwhile fails this
  // file there; a file after them opens them anew).
  std::unique_ptr<Pending> startFile(std::size_t index,
                                     const std::deque<std::unique_ptr<Pending>>& before);
  // Whether the file on its way uses the folders held open in `t`.
  static bool uses(const Pending& pending, const Target& t);
  // Waits for the file's copy and finishes it: the copies take their names,
  // files already there are confirmed, the hash list entries recorded. After
  // an earlier file stopped the run, the copy is only waited for and its
  // temporary files removed.
  void finishFile(Pending& pending);

  // The temporary name, never one that a file of the card has (a card may
  // hold ".A.MOV.kdpart" beside "A.MOV").
  std::string partOf(const CardFile& file) const;
  static const std::string& pathOf(const CardFile& f) { return f.path; }
  static const std::string& pathOf(const std::string& s) { return s; }

  // A destination whose folder is gone is given up; otherwise the file
  // failed there.
  void loseOrFail(Target& t, const std::string& path, const std::string& reason,
                  std::uint64_t remainingAfter);

  void cardFailed(const std::string& source, std::size_t index, std::string detail = {});

  // The copy verified into its temporary files; with --reverify each is read
  // again from its device (the destinations side by side), and each one that
  // verified takes the file's real name, never replacing anything.
  void finishCopies(std::size_t index, const std::vector<Part>& copyTo,
                    const KdFileManager::CopyResult& result, std::uint64_t remainingAfter);

  // A file already at the destination with the card file's size: it is the
  // card's file when the hash list recorded the card file's digest for it (or,
  // without a record, when its own digest is the card file's).
  void confirmPresent(Target& t, std::size_t index, const std::string& sourceDigest);

  // A file's entries in the hash list: `digest` in the verifying kind with
  // `action`, and the card file's digest in each further kind, "original"
  // (hashed from the card in this run).
  void record(Target& t, std::size_t index, std::uint64_t size, const std::string& digest,
              MhlAction action, std::chrono::system_clock::time_point now);
  // With `onlyNew`, a kind the hash list already holds as good, with the same
  // digest, is not written again.
  void recordOthers(Target& t, std::size_t index, std::uint64_t size,
                    std::chrono::system_clock::time_point now, bool onlyNew);

  // The card's own hash lists, read before anything is written: a damaged
  // one stops the run, unless the user leaves them out.
  bool useCardHistories();

  // The card file against the card's hash list that covers it. Equal: what
  // this run records of it is "verified". Different, or not to be checked:
  // it fails at every destination that holds it.
  void checkAgainstCardHistory(std::size_t index, const std::string& source,
                               const std::string& digest,
                               const std::vector<std::size_t>& entriesBefore);

  // The card file's digest in `kind` when it is a further kind of this run.
  std::optional<std::string> otherDigestOf(std::size_t index,
                                           const KdFileManager::CopyDigest& kind) const;

  // The card's hash lists copied into the destination and continued there.
  void continueCardHistories(Target& t, const MhlCreator& creator,
                             const std::vector<std::string>& paths,
                             const std::vector<MhlFolder>& folders,
                             const std::vector<std::string>& patterns);

  // The hash lists, then the folders' dates (the hash list's folder changes
  // the date of the folder it is in).
  void finish();

  // Before anything is written: every destination can hold what is still to
  // be copied there (files already there with the card file's size are not
  // counted), unless `force`; two destinations on one drive are named.
  bool preflight();

  // Every card file that was copied or found is read a second time, from the
  // device, and its digest compared with the first read's. A difference
  // fails the file at every destination and keeps it out of the hash lists:
  // the first read's digest cannot be trusted.
  void readCardAgain();

  // The transfer report of the run in each destination, beside its hash list.
  void writeReports();

  // Tells the progress `more` bytes further: from the copies' threads and
  // from the run's own, one call at a time and never going back.
  void advance(std::uint64_t more);
  // The copy's progress, adding to `told`; and the same for a plain read.
  copy::DirectProgress copyProgress(std::uint64_t& told);
  std::function<void(std::uint64_t)> readReporter(std::uint64_t& told);

  const OffloadOptions& options_;
  const OffloadProgress& progress_;
  const KdFileManager::CopyDigest digest_;               // the verifying kind
  std::vector<KdFileManager::CopyDigest> otherDigests_;  // the further kinds, recorded only
  OffloadReport report_;
  CardTree tree_;
  offload::CardHistories cardHistories_;  // the card's own hash lists, when it keeps any
  std::vector<Target> targets_;
  kd::Mutex progressMu_;            // one call of the progress at a time; Pending::read
  std::condition_variable readCv_;  // a file on its way was read to the end
  std::uint64_t done_ KD_GUARDED_BY(progressMu_) = 0;  // bytes told to the progress
  std::uint64_t progressTotal_ = 0;                    // the card's bytes, twice with sourceVerify
  bool ran_ = false;  // past the checks: the destinations were touched
};

}  // namespace kd::offload
