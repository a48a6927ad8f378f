// The offload run: the card read once per file for every destination through
// the verified copy, each copy finished under a temporary name and given its
// real name only once it verified, resumable from each destination's hash
// list.
#include "files/offload/Offload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <thread>

#include "common/AtomicFile.h"
#include "common/Folders.h"
#include "common/UniqueFd.h"
#include "files/FileOperations.h"
#include "files/copy/CopyEngine.h"
#include "files/mhl/MhlDirectoryHash.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/OffloadHistory.h"
#include "files/offload/OffloadInternal.h"
#include "files/offload/TransferReport.h"
#include "platform/Platform.h"

namespace kd {
namespace {

using Clock = std::chrono::steady_clock;
using offload::CardFile;
using offload::CardTree;

// Patterns of what the hash lists leave out, in their own notation: what
// systems keep on a volume, the hash list itself, temporary copies and the
// transfer reports.
const std::vector<std::string> kIgnorePatterns = {".Trashes",
                                                  ".Spotlight-V100",
                                                  ".fseventsd",
                                                  ".TemporaryItems",
                                                  ".DS_Store",
                                                  ".Trash-*",
                                                  "System Volume Information",
                                                  "$RECYCLE.BIN",
                                                  "._*",
                                                  "ascmhl",
                                                  "ascmhl/",
                                                  ".*.kdpart",
                                                  std::string(kTransferReportPattern)};

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string baseName(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::chrono::system_clock::time_point timeOf(const struct timespec& t) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool sameItem(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Renames within an open folder without replacing: EEXIST when the name is
// taken. A file system that cannot refuse by itself (exFAT through FUSE) is
// looked at first.
int renameNoReplaceAt(int folder, const std::string& from, const std::string& to) {
  if (::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  struct stat st {};
  if (::fstatat(folder, to.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return EEXIST;
  if (::fstatat(folder, from.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  return ::renameat(folder, from.c_str(), folder, to.c_str()) == 0 ? 0 : errno;
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
  std::optional<std::string> enter(const std::string& relative, bool make) {
    std::vector<std::string> parts;
    for (std::size_t start = 0; start < relative.size();) {
      std::size_t end = relative.find('/', start);
      if (end == std::string::npos) end = relative.size();
      parts.push_back(relative.substr(start, end - start));
      start = end + 1;
    }
    std::size_t keep = 0;
    while (keep < parts.size() && keep + 1 < open.size() && open[keep + 1].name == parts[keep])
      ++keep;
    leaveTo(keep + 1);
    if (std::optional<std::string> moved = intact()) {
      leaveTo(firstMoved().value_or(1));  // opened anew, and checked, by the next file
      return moved;
    }
    for (std::size_t i = keep; i < parts.size(); ++i) {
      const int above = current();
      const char* name = parts[i].c_str();
      UniqueFd fd(retryOnEintr([&] { return ::openat(above, name, kFolderFlags); }));
      if (!fd && errno == ENOENT && make) {
        if (::mkdirat(above, name, 0755) != 0 && errno != EEXIST) return std::strerror(errno);
        fd.reset(retryOnEintr([&] { return ::openat(above, name, kFolderFlags); }));
      }
      if (!fd && (errno == ELOOP || errno == ENOTDIR)) {
        std::string part = currentPath();
        part += (part.empty() ? "" : "/") + parts[i];
        return "a link or a file is where the folder " + part + " belongs; nothing was written";
      }
      OpenFolder& folder = open.emplace_back();
      folder.name = parts[i];
      if (!fd || ::fstat(fd.get(), &folder.st) != 0) {
        const int err = errno;
        open.pop_back();
        return std::string(std::strerror(err));
      }
      folder.fd = std::move(fd);
    }
    return std::nullopt;
  }

  // Whether every open folder still has its name in the one above: a folder
  // moved away or replaced during the run holds no copy that is where it
  // belongs. The reason when one does not; the folders stay open (the
  // caller's descriptors may still be in use).
  std::optional<std::string> intact() const {
    if (std::optional<std::size_t> moved = firstMoved()) {
      std::string path;
      for (std::size_t j = 1; j <= *moved; ++j) path += (j > 1 ? "/" : "") + open[j].name;
      return "the folder " + path + " was moved or replaced during the offload";
    }
    return std::nullopt;
  }
  std::optional<std::size_t> firstMoved() const {
    for (std::size_t i = 1; i < open.size(); ++i) {
      struct stat st {};
      if (::fstatat(open[i - 1].fd.get(), open[i].name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
          !sameItem(st, open[i].st))
        return i;
    }
    return std::nullopt;
  }

  // Closes the open folders from `size` on, each flushed to its device first
  // when a file took its name in it.
  void leaveTo(std::size_t size) {
    while (open.size() > size) {
      if (open.back().changed) ::fsync(open.back().fd.get());
      open.pop_back();
    }
  }

  // Flushes every folder in which a file took its name, so that the names
  // are on the device before the hash list that records them.
  void flushFolders() {
    leaveTo(1);
    if (open.front().changed && ::fsync(open.front().fd.get()) == 0) open.front().changed = false;
  }

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
  std::optional<std::string> gone() const {
    struct stat st {};
    if (::lstat(folder.c_str(), &st) != 0)
      return "the destination is gone (" + std::string(std::strerror(errno)) + ")";
    if (!S_ISDIR(st.st_mode) || !sameItem(st, root().st))
      return std::string("the destination is gone (its folder was replaced or unmounted)");
    return std::nullopt;
  }
};

// The run itself; one per call of offloadCard, on the caller's thread.
class Run {
 public:
  Run(const OffloadOptions& options, const OffloadProgress& progress)
      : options_(options),
        progress_(progress),
        digest_(KdFileManager::copyDigestNamed(options.hash.verifying())
                    .value_or(KdFileManager::CopyDigest{})) {
    for (const std::string& kind : options.hash.others())
      otherDigests_.push_back(
          KdFileManager::copyDigestNamed(kind).value_or(KdFileManager::CopyDigest{}));
  }

  OffloadReport go() {
    const Clock::time_point start = Clock::now();
    report_.started = std::chrono::system_clock::now();
    report_.card = options_.card;
    report_.hash = options_.hash;
    report_.layout = options_.layout;
    report_.sourceVerify = options_.sourceVerify;
    report_.name = options_.name.empty() ? baseName(trimmed(options_.card)) : options_.name;
    if (std::optional<std::string> problem = offloadOptionsProblem(options_)) {
      report_.error = *problem;
      return std::move(report_);
    }
    if (report_.name.empty() || report_.name == "." || report_.name == ".." ||
        report_.name == "/") {
      report_.error =
          "The card " + options_.card + " has no folder name to copy it under: give one";
      return std::move(report_);
    }
    tree_ = offload::readCard(options_.card, options_.mhl, options_.exclude);
    report_.excluded = tree_.excluded;
    report_.files = tree_.files.size();
    report_.bytes = tree_.bytes;
    progressTotal_ = tree_.bytes * (options_.sourceVerify ? 2 : 1);
    for (const CardFile& f : tree_.files)
      report_.cardFiles.push_back({f.path, f.size, timeOf(f.modified), std::nullopt});
    if (!tree_.error.empty()) {
      report_.error = tree_.error;
    } else if (useCardHistories() && preflight() && prepareTargets()) {
      ran_ = true;
      for (std::size_t i = 0; i < tree_.files.size() && report_.error.empty(); ++i) offloadFile(i);
      if (options_.sourceVerify && report_.error.empty()) readCardAgain();
      finish();
    }
    for (Target& t : targets_) report_.destinations.push_back(std::move(t.report));
    report_.ended = std::chrono::system_clock::now();
    report_.elapsed = Clock::now() - start;
    if (options_.report && ran_) writeReports();
    return std::move(report_);
  }

 private:
  static std::string trimmed(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }

  bool stopAsked() const { return options_.stop && options_.stop->load(); }

  // Makes <destination>/<name> in every destination and reads its hash list.
  bool prepareTargets() {
    struct stat card {};
    char cardReal[PATH_MAX];
    if (::stat(options_.card.c_str(), &card) != 0 || !::realpath(options_.card.c_str(), cardReal)) {
      report_.error = "The card " + options_.card + " cannot be read: " + std::strerror(errno);
      return false;
    }
    const std::string cardPath = cardReal;
    for (const std::string& destination : options_.destinations) {
      struct stat st {};
      if (::stat(destination.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        report_.error =
            "The destination " + destination + " is not an existing folder (is its drive mounted?)";
        return false;
      }
      Target& t = targets_.emplace_back();
      t.folder = trimmed(destination) + "/" + report_.name;
      t.report.folder = t.folder;
      t.report.states.assign(tree_.files.size(), OffloadFileState::NotCopied);
      std::string error;
      char real[PATH_MAX];
      if (!createFolders(t.folder, 0755, std::nullopt, &error) ||
          ::lstat(t.folder.c_str(), &st) != 0 || !::realpath(t.folder.c_str(), real)) {
        report_.error = "Cannot make the folder " + t.folder + ": " +
                        (error.empty() ? std::strerror(errno) : error);
        return false;
      }
      OpenFolder& root = t.open.emplace_back();
      root.fd.reset(retryOnEintr([&] { return ::open(t.folder.c_str(), kFolderFlags); }));
      // A link would take the copies elsewhere.
      if (!S_ISDIR(st.st_mode) || !root.fd || ::fstat(root.fd.get(), &root.st) != 0 ||
          !sameItem(root.st, st)) {
        report_.error = "The destination " + t.folder + " is a link, not a folder";
        return false;
      }
      const std::string folderPath = real;
      auto inside = [](const std::string& inner, const std::string& outer) {
        return inner == outer || outer == "/" ||
               (inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 &&
                inner[outer.size()] == '/');
      };
      if (inside(folderPath, cardPath) || inside(cardPath, folderPath)) {
        report_.error = "The destination " + t.folder + " and the card " + options_.card +
                        " overlap: one is inside the other";
        return false;
      }
      for (const Target& other : targets_)
        if (&other != &t && sameItem(other.root().st, st)) {
          report_.error = "The destination " + t.folder + " is named twice";
          return false;
        }
      if (options_.mhl) {
        if (std::optional<std::string> problem = cardHistories_.destinationProblem(t.folder)) {
          report_.error = *problem;
          return false;
        }
        t.historyUsable = MhlHistory::load(t.folder, t.history, error);
        if (!t.historyUsable)
          t.fail(t.folder + "/ascmhl",
                 "its hash list cannot be read, so no generation is added to it: " + error);
      }
    }
    return true;
  }

  // One copy being made: the destination, the temporary file's name in the
  // file's folder there, and its path for messages.
  struct Part {
    Target* target;
    std::string name;
    std::string path;
  };

  void offloadFile(std::size_t index) {
    const CardFile& file = tree_.files[index];
    const std::string source = trimmed(options_.card) + "/" + file.path;
    if (progress_.fileStarted) progress_.fileStarted(file.path, file.size);
    const std::uint64_t remainingAfter = tree_.files.size() - index - 1;
    const std::string name = baseName(file.path);
    std::vector<std::size_t> failuresBefore, entriesBefore;
    for (const Target& t : targets_) {
      failuresBefore.push_back(t.report.failures.size());
      entriesBefore.push_back(t.entries.size());
    }
    // A file that failed at a destination is marked so there, whatever way
    // it failed.
    struct MarkFailures {
      Run& run;
      std::size_t index;
      const std::vector<std::size_t>& before;
      ~MarkFailures() {
        for (std::size_t i = 0; i < run.targets_.size(); ++i)
          if (run.targets_[i].report.failures.size() > before[i])
            run.targets_[i].report.states[index] = OffloadFileState::Failed;
      }
    } mark{*this, index, failuresBefore};

    std::vector<Part> copyTo;
    std::vector<KdFileManager::OpenDestination> opened;
    std::vector<Target*> confirm;
    for (Target& t : targets_) {
      if (!t.live()) continue;
      // A destination unmounted under the run leaves an empty mount point:
      // nothing may be made there, on the disk below it.
      if (std::optional<std::string> gone = t.gone()) {
        t.lose(*gone, remainingAfter + 1);
        continue;
      }
      const std::string final = t.folder + "/" + file.path;
      if (std::optional<std::string> problem = t.enter(folderOf(file.path), true)) {
        loseOrFail(t, final, *problem, remainingAfter);
        continue;
      }
      const int folder = t.current();
      struct stat st {};
      if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISREG(st.st_mode) && static_cast<std::uint64_t>(st.st_size) == file.size)
          confirm.push_back(&t);
        else
          t.fail(final, "something else is already there; it was left as it is");
        continue;
      }
      if (errno != ENOENT) {
        loseOrFail(t, final, std::strerror(errno), remainingAfter);
        continue;
      }
      Part part{&t, partOf(file), ""};
      part.path = folderOf(final) + "/" + part.name;
      // A temporary file of a stopped run is written anew.
      if (::fstatat(folder, part.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          S_ISREG(st.st_mode))
        ::unlinkat(folder, part.name.c_str(), 0);
      UniqueFd fd(retryOnEintr([&] {
        return ::openat(folder, part.name.c_str(),
                        O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
      }));
      if (!fd) {
        loseOrFail(t, part.path, std::strerror(errno), remainingAfter);
        continue;
      }
      opened.push_back({part.path, folder, part.name, std::move(fd)});
      copyTo.push_back(std::move(part));
    }

    std::optional<std::string> sourceDigest;
    const std::uint64_t before = done_;
    if (!copyTo.empty()) {
      const KdFileManager::CopyResult result =
          copy::copyToOpenFiles(source, std::move(opened), digest_, otherDigests_,
                                /*keepPermissions=*/true, copyProgress(before));
      if (!result.completed) {
        if (stopAsked()) {
          report_.error = "Stopped on request while copying " + source;
          for (Target& t : targets_) t.lose(report_.error, remainingAfter + 1);
        } else {
          cardFailed(source, index);
        }
        return;
      }
      sourceDigest = result.sourceDigest;
      report_.cardFiles[index].digest = sourceDigest;
      for (const std::optional<std::string>& other : result.moreSourceDigests)
        report_.cardFiles[index].otherDigests.push_back(other.value_or(""));
      report_.bytesRead += result.bytesCopied;
      finishCopies(index, copyTo, result, remainingAfter);
    }

    if (!confirm.empty() && !sourceDigest) {
      std::string error;
      std::vector<KdFileManager::CopyDigest> kinds = {digest_};
      kinds.insert(kinds.end(), otherDigests_.begin(), otherDigests_.end());
      std::optional<std::vector<std::string>> digests =
          offload::digestsOfFile(AT_FDCWD, source, kinds, false, readReporter(before), error);
      if (!digests) {
        cardFailed(source, index, error);
        return;
      }
      sourceDigest = digests->front();
      report_.cardFiles[index].digest = sourceDigest;
      report_.cardFiles[index].otherDigests.assign(digests->begin() + 1, digests->end());
      report_.bytesRead += file.size;
    }
    for (Target* t : confirm) confirmPresent(*t, index, *sourceDigest);
    if (sourceDigest) checkAgainstCardHistory(index, source, *sourceDigest, entriesBefore);
    done_ = before + file.size;
    if (progress_.bytes) progress_.bytes(done_, progressTotal_);
  }

  // The temporary name, never one that a file of the card has (a card may
  // hold ".A.MOV.kdpart" beside "A.MOV").
  std::string partOf(const CardFile& file) const {
    const std::string folder = folderOf(file.path);
    const std::string prefix = folder.empty() ? "" : folder + "/";
    std::string name = offloadPartName(baseName(file.path));
    for (int n = 1;
         std::binary_search(tree_.files.begin(), tree_.files.end(), prefix + name,
                            [](const auto&a, const auto&b) { return pathOf(a) < pathOf(b); });
         ++n)
      name = offloadPartName(baseName(file.path) + "." + std::to_string(n));
    return name;
  }
  static const std::string& pathOf(const CardFile& f) { return f.path; }
  static const std::string& pathOf(const std::string& s) { return s; }

  // A destination whose folder is gone is given up; otherwise the file
  // failed there.
  void loseOrFail(Target& t, const std::string& path, const std::string& reason,
                  std::uint64_t remainingAfter) {
    if (std::optional<std::string> gone = t.gone()) {
      t.fail(path, *gone);
      t.lose(*gone, remainingAfter);
    } else {
      t.fail(path, reason);
    }
  }

  void cardFailed(const std::string& source, std::size_t index, std::string detail = {}) {
    if (detail.empty()) {
      UniqueFd fd(retryOnEintr([&] { return ::open(source.c_str(), O_RDONLY | O_CLOEXEC); }));
      detail = fd ? "a read failed" : std::strerror(errno);
    }
    report_.error = "Reading " + source + " from the card failed (" + detail +
                    "); the offload stopped. Was the card removed?";
    for (Target& t : targets_) t.lose(report_.error, tree_.files.size() - index);
  }

  // The copy verified into its temporary files; with --reverify each is read
  // again from its device (the destinations side by side), and each one that
  // verified takes the file's real name, never replacing anything.
  void finishCopies(std::size_t index, const std::vector<Part>& copyTo,
                    const KdFileManager::CopyResult& result, std::uint64_t remainingAfter) {
    const CardFile& file = tree_.files[index];
    const std::size_t n = copyTo.size();
    std::vector<std::optional<std::string>> reread(n);
    std::vector<std::string> rereadError(n);
    if (options_.reverify) {
      std::vector<std::thread> threads;
      for (std::size_t i = 0; i < n; ++i)
        if (result.destinations[i].verified)
          threads.emplace_back([&, i] {
            reread[i] = offload::digestOfFile(copyTo[i].target->current(), copyTo[i].name, digest_,
                                              true, {}, rereadError[i]);
          });
      for (std::thread& thread : threads) thread.join();
    }
    const auto now = std::chrono::system_clock::now();
    const std::string name = baseName(file.path);
    for (std::size_t i = 0; i < n; ++i) {
      Target& t = *copyTo[i].target;
      const std::string& part = copyTo[i].name;
      const int folder = t.current();
      const KdFileManager::CopyOutcome& outcome = result.destinations[i];
      const std::string final = t.folder + "/" + file.path;
      std::string failure;
      bool keepPart = false;  // verified, but its name is taken
      std::optional<std::string> destinationDigest = outcome.digest;
      if (!outcome.verified) {
        failure = outcome.failure;
      } else if (options_.reverify) {
        destinationDigest = reread[i];
        if (!reread[i])
          failure = "reading it again from the device failed: " + rereadError[i];
        else if (reread[i] != result.sourceDigest)
          failure = "read again from the device, it differs from the card's file";
      }
      // The folders must still be where they belong, before the copy takes
      // its name and after: a copy in a folder moved aside is not a copy at
      // the destination.
      if (failure.empty())
        if (std::optional<std::string> moved = t.intact()) failure = *moved + "; nothing was kept";
      if (failure.empty()) {
        if (const int err = renameNoReplaceAt(folder, part, name)) {
          failure = "it verified, but cannot take its name (" + std::string(std::strerror(err)) +
                    "); it stays as " + copyTo[i].path;
          keepPart = true;
        } else {
          t.open.back().changed = true;
          if (std::optional<std::string> moved = t.intact()) {
            failure = *moved + " while the copy took its name; it is not where it belongs";
            keepPart = true;
          }
        }
      }
      if (!failure.empty()) {
        if (!keepPart) ::unlinkat(folder, part.c_str(), 0);
        t.fail(final, failure, result.sourceDigest, destinationDigest);
        if (outcome.error == ENOSPC || outcome.error == EDQUOT)
          t.lose("the destination is full (" + std::string(std::strerror(outcome.error)) + ")",
                 remainingAfter);
        else if (std::optional<std::string> gone = t.gone())
          t.lose(*gone, remainingAfter);
        continue;
      }
      if (!outcome.attributesNotKept.empty()) {
        if (t.report.filesWithAttributesNotKept++ == 0) t.report.attributesNotKeptExample = final;
      }
      ++t.report.filesCopied;
      t.report.states[index] = OffloadFileState::Copied;
      if (options_.reverify) ++t.report.filesReverified;
      t.report.bytesCopied += result.bytesCopied;
      record(t, index, result.bytesCopied, *result.sourceDigest, "original", now);
    }
  }

  // A file already at the destination with the card file's size: it is the
  // card's file when the hash list recorded the card file's digest for it (or,
  // without a record, when its own digest is the card file's).
  void confirmPresent(Target& t, std::size_t index, const std::string& sourceDigest) {
    const CardFile& file = tree_.files[index];
    const std::string final = t.folder + "/" + file.path;
    std::optional<std::string> found;
    std::string error;
    std::optional<MhlHash> recorded;
    // With the card's hash lists in the destination, a record there may be
    // the card's own, never checked at this destination: the copy is read.
    if (t.historyUsable && cardHistories_.empty())
      recorded = t.history.latest(file.path, options_.hash.verifying());
    if (recorded && recorded->action == "failed") recorded.reset();  // a digest not to trust
    if (recorded && recorded->size == file.size && !options_.reverify)
      found = recorded->digest;
    else
      found = offload::digestOfFile(t.current(), baseName(file.path), digest_, options_.reverify,
                                    {}, error);
    const auto now = std::chrono::system_clock::now();
    if (!found) {
      t.fail(final, "already there, but it cannot be read: " + error, sourceDigest);
      return;
    }
    if (*found != sourceDigest) {
      t.fail(final,
             options_.reverify ? "read again from the device, it differs from the card's file"
                               : "already there and differs from the card's file; left as it is",
             sourceDigest, found);
      if (options_.reverify)
        t.entries.push_back({file.path, file.size, timeOf(file.modified), options_.hash.verifying(),
                             *found, "failed", now});
      return;
    }
    ++t.report.filesSkipped;
    t.report.states[index] = OffloadFileState::AlreadyThere;
    if (options_.reverify) {
      ++t.report.filesReverified;
      record(t, index, file.size, sourceDigest, recorded ? "verified" : "original", now);
    } else if (!recorded) {
      record(t, index, file.size, sourceDigest, "original", now);
    } else {
      recordOthers(t, index, file.size, now, /*onlyNew=*/true);
    }
  }

  // A file's entries in the hash list: `digest` in the verifying kind with
  // `action`, and the card file's digest in each further kind, "original"
  // (hashed from the card in this run).
  void record(Target& t, std::size_t index, std::uint64_t size, const std::string& digest,
              const char* action, std::chrono::system_clock::time_point now) {
    const CardFile& file = tree_.files[index];
    t.entries.push_back(
        {file.path, size, timeOf(file.modified), options_.hash.verifying(), digest, action, now});
    recordOthers(t, index, size, now, /*onlyNew=*/false);
  }
  // With `onlyNew`, a kind the hash list already holds as good, with the same
  // digest, is not written again.
  void recordOthers(Target& t, std::size_t index, std::uint64_t size,
                    std::chrono::system_clock::time_point now, bool onlyNew) {
    const CardFile& file = tree_.files[index];
    const std::vector<std::string> kinds = options_.hash.others();
    const std::vector<std::string>& digests = report_.cardFiles[index].otherDigests;
    for (std::size_t k = 0; k < kinds.size() && k < digests.size(); ++k) {
      if (digests[k].empty()) continue;  // a digest that failed records nothing
      if (onlyNew && t.historyUsable) {
        const std::optional<MhlHash> known = t.history.latest(file.path, kinds[k]);
        if (known && known->action != "failed" && known->digest == digests[k]) continue;
      }
      t.entries.push_back(
          {file.path, size, timeOf(file.modified), kinds[k], digests[k], "original", now});
    }
  }

  // The card's own hash lists, read before anything is written: a damaged
  // one stops the run, unless the user leaves them out.
  bool useCardHistories() {
    if (!options_.mhl || tree_.histories.empty()) return true;
    if (options_.ignoreSourceHistory) {
      report_.warnings.push_back(
          "The card's hash list (ascmhl) was left out (--ignore-source-history): nothing was "
          "checked against it, and each destination starts a hash list of its own");
      return true;
    }
    std::string error;
    if (!cardHistories_.load(options_.card, tree_, error)) {
      report_.error = error +
                      ". Nothing was written; --ignore-source-history copies the card without "
                      "its hash lists and starts new ones";
      return false;
    }
    report_.cardHistories = cardHistories_.roots();
    report_.missingFromCard = cardHistories_.missing(tree_);
    for (OffloadExclusion& e : report_.excluded)
      for (const std::string& root : report_.cardHistories)
        if (e.path == (root.empty() ? "" : root + "/") + std::string(MhlHistory::kFolderName))
          e.reason = "a hash list of the card: checked against, and continued in each destination";
    return true;
  }

  // The card file against the card's hash list that covers it. Equal: what
  // this run records of it is "verified". Different, or not to be checked:
  // it fails at every destination that holds it.
  void checkAgainstCardHistory(std::size_t index, const std::string& source,
                               const std::string& digest,
                               const std::vector<std::size_t>& entriesBefore) {
    if (cardHistories_.empty()) return;
    const CardFile& file = tree_.files[index];
    const offload::HistoryCheck check =
        cardHistories_.check(file.path, file.size, options_.hash.verifying(), digest,
                             [&](const KdFileManager::CopyDigest& kind, std::string& error) {
                               // A further kind of this run: already read.
                               if (std::optional<std::string> known = otherDigestOf(index, kind))
                                 return known;
                               std::optional<std::string> found =
                                   offload::digestOfFile(AT_FDCWD, source, kind, false, {}, error);
                               if (found) report_.bytesRead += file.size;
                               return found;
                             });
    using Outcome = offload::HistoryCheck::Outcome;
    if (check.outcome == Outcome::Untracked) return;
    if (check.outcome == Outcome::New) {
      report_.newOnCard.push_back(file.path);
      return;
    }
    if (check.outcome == Outcome::Match) ++report_.filesMatchingHistory;
    for (std::size_t i = 0; i < targets_.size(); ++i) {
      Target& t = targets_[i];
      std::vector<MhlHash> added;
      for (std::size_t e = entriesBefore[i]; e < t.entries.size(); ++e) {
        MhlHash& entry = t.entries[e];
        if (entry.path != file.path || entry.action == "failed") continue;
        entry.action = check.outcome == Outcome::Match ? "verified" : "failed";
        if (check.outcome == Outcome::Match && check.kind != entry.format) {
          // Recorded already as a further kind of this run: now checked.
          const auto same = std::find_if(
              t.entries.begin() + static_cast<std::ptrdiff_t>(entriesBefore[i]), t.entries.end(),
              [&](const MhlHash& h) { return h.path == file.path && h.format == check.kind; });
          if (same != t.entries.end()) continue;
          added.push_back(entry);
          added.back().format = check.kind;
          added.back().digest = check.found;
        }
      }
      t.entries.insert(t.entries.end(), added.begin(), added.end());
      if (check.outcome == Outcome::Unchecked)  // nothing to record it with
        std::erase_if(t.entries, [&](const MhlHash& h) { return h.path == file.path; });
      const OffloadFileState state = t.report.states[index];
      if (check.outcome != Outcome::Match &&
          (state == OffloadFileState::Copied || state == OffloadFileState::AlreadyThere))
        t.fail(t.folder + "/" + file.path, check.reason, digest);
    }
  }

  // The card file's digest in `kind` when it is a further kind of this run.
  std::optional<std::string> otherDigestOf(std::size_t index,
                                           const KdFileManager::CopyDigest& kind) const {
    const std::vector<std::string> kinds = options_.hash.others();
    const std::vector<std::string>& digests = report_.cardFiles[index].otherDigests;
    for (std::size_t k = 0; k < kinds.size() && k < digests.size(); ++k)
      if (!digests[k].empty() && kinds[k] == kind.name) return digests[k];
    return std::nullopt;
  }

  // The card's hash lists copied into the destination and continued there.
  void continueCardHistories(Target& t, const MhlCreator& creator,
                             const std::vector<std::string>& paths,
                             const std::vector<MhlFolder>& folders,
                             const std::vector<std::string>& patterns) {
    offload::HistoryGenerations in;
    in.destination = t.root().fd.get();
    in.folder = t.folder;
    in.own = &t.history;
    in.entries = &t.entries;
    in.paths = &paths;
    in.folders = &folders;
    in.creator = creator;
    in.name = report_.name;
    in.patterns = patterns;
    in.format = options_.hash.verifying();
    std::vector<std::pair<std::string, std::string>> problems;
    t.report.manifest = cardHistories_.write(in, problems);
    for (auto& [path, reason] : problems) t.fail(path, reason);
  }

  // The hash lists, then the folders' dates (the hash list's folder changes
  // the date of the folder it is in).
  void finish() {
    MhlCreator creator;
    creator.creationDate = std::chrono::system_clock::now();
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0) std::strcpy(host, "localhost");
    creator.hostname = host;
    creator.tool = options_.tool;
    creator.toolVersion = options_.toolVersion;
    for (Target& t : targets_) t.flushFolders();
    for (Target& t : targets_) {
      if (t.gone() || (cardHistories_.empty() && (!t.historyUsable || t.entries.empty()))) continue;
      // The directory hashes of the card's folder as the destination now holds it.
      std::vector<MhlFolder> folders;
      for (const offload::CardFolder& f : tree_.folders)
        if (!t.enter(f.path, false)) folders.push_back({f.path, timeOf(f.modified)});
      t.leaveTo(1);
      std::vector<std::string> paths;
      for (const CardFile& f : tree_.files) paths.push_back(f.path);
      std::string error;
      std::vector<std::string> patterns = kIgnorePatterns;
      patterns.insert(patterns.end(), options_.exclude.begin(), options_.exclude.end());
      if (!cardHistories_.empty()) {
        continueCardHistories(t, creator, paths, folders, patterns);
        continue;
      }
      t.report.manifest = t.history.addGeneration(
          creator, report_.name, patterns, t.entries, error, "transfer",
          mhlGenerationDirectoryHashes(paths, t.entries, t.history, folders, options_.hash.all()));
      if (!t.report.manifest)
        t.fail(t.folder + "/ascmhl", "the hash list cannot be written: " + error);
    }
    for (Target& t : targets_) {
      if (t.gone()) continue;
      for (auto folder = tree_.folders.rbegin(); folder != tree_.folders.rend(); ++folder) {
        if (t.enter(folder->path, false)) continue;
        // With the access time beside it: exFAT through FUSE drops a
        // modification time sent alone.
        struct stat st {};
        if (::fstat(t.current(), &st) != 0) continue;
        const struct timespec times[2] = {st.st_atim, folder->modified};
        ::futimens(t.current(), times);
      }
      t.leaveTo(1);
    }
  }

  // Before anything is written: every destination can hold what is still to
  // be copied there (files already there with the card file's size are not
  // counted), unless `force`; two destinations on one drive are named.
  bool preflight() {
    std::vector<std::pair<std::string, std::string>> drives;  // destination, drive
    for (const std::string& destination : options_.destinations) {
      struct statvfs vfs {};
      if (::statvfs(destination.c_str(), &vfs) == 0) {
        const std::uint64_t free = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
        std::uint64_t needed = 0;
        const std::string folder = trimmed(destination) + "/" + report_.name;
        for (const CardFile& f : tree_.files) {
          struct stat st {};
          if (::lstat((folder + "/" + f.path).c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
              static_cast<std::uint64_t>(st.st_size) != f.size)
            needed += f.size;
        }
        if (needed > free && !options_.force) {
          report_.error = "The destination " + destination + " has " +
                          KdFileManager::formatFileSize(static_cast<double>(free)) +
                          " free, but the card needs " +
                          KdFileManager::formatFileSize(static_cast<double>(needed)) +
                          " there: free some space or leave it out (--force tries anyway)";
          return false;
        }
      }
      if (std::optional<std::string> drive = platform().volumes().physicalDriveOf(destination)) {
        for (const auto& [other, otherDrive] : drives)
          if (otherDrive == *drive)
            report_.warnings.push_back("The destinations " + other + " and " + destination +
                                       " are on the same drive (" + *drive +
                                       "): two copies on one drive are one copy");
        drives.emplace_back(destination, *drive);
      }
    }
    return true;
  }

  // Every card file that was copied or found is read a second time, from the
  // device, and its digest compared with the first read's. A difference
  // fails the file at every destination and keeps it out of the hash lists:
  // the first read's digest cannot be trusted.
  void readCardAgain() {
    for (std::size_t i = 0; i < tree_.files.size(); ++i) {
      if (stopAsked()) {
        report_.error = "Stopped on request while reading the card a second time";
        return;
      }
      const std::optional<std::string>& first = report_.cardFiles[i].digest;
      const CardFile& file = tree_.files[i];
      done_ += file.size;
      if (!first) continue;
      if (progress_.fileStarted) progress_.fileStarted(file.path, file.size);
      const std::string source = trimmed(options_.card) + "/" + file.path;
      std::string error;
      const std::optional<std::string> second = offload::digestOfFile(
          AT_FDCWD, source, digest_, true, readReporter(done_ - file.size), error);
      if (progress_.bytes) progress_.bytes(done_, progressTotal_);
      if (second == first) {
        ++report_.filesReadTwice;
        continue;
      }
      const std::string reason =
          second ? "the card gave other bytes when read a second time: the card or its reader "
                   "is suspect"
                 : "reading it a second time from the card failed (" + error +
                       "): the card or its reader is suspect";
      for (Target& t : targets_) {
        OffloadFileState& state = t.report.states[i];
        if (state != OffloadFileState::Copied && state != OffloadFileState::AlreadyThere) continue;
        state = OffloadFileState::Failed;
        t.fail(t.folder + "/" + file.path, reason, first, second);
        std::erase_if(t.entries, [&](const MhlHash& h) { return h.path == file.path; });
      }
    }
  }

  // The transfer report of the run in each destination, beside its hash list.
  void writeReports() {
    for (std::size_t i = 0; i < targets_.size() && i < report_.destinations.size(); ++i) {
      Target& t = targets_[i];
      OffloadDestination& d = report_.destinations[i];
      if (t.open.empty() || t.gone()) continue;
      // Two runs in one second: the later report gets a number.
      std::string html = transferReportName(report_, "html"), csv, error;
      const std::string stem = html.substr(0, html.size() - 5);
      bool written = false;
      for (int n = 1; n <= 100 && !written; ++n) {
        const std::string name = n == 1 ? stem : stem + "-" + std::to_string(n);
        html = name + ".html";
        csv = name + ".csv";
        struct stat st {};
        if (::fstatat(t.root().fd.get(), html.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 ||
            ::fstatat(t.root().fd.get(), csv.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0)
          continue;
        written = writeFileAtomicallyAt(t.root().fd.get(), html, transferReportHtml(report_, i),
                                        AtomicReplace::NoReplace, 0644, &error) &&
                  writeFileAtomicallyAt(t.root().fd.get(), csv, transferReportCsv(report_, i),
                                        AtomicReplace::NoReplace, 0644, &error);
        if (!written) break;
      }
      if (written) {
        d.reportHtml = t.folder + "/" + html;
        d.reportCsv = t.folder + "/" + csv;
      } else {
        d.failures.push_back({t.folder + "/" + html,
                              "the transfer report cannot be written: " + error, std::nullopt,
                              std::nullopt});
      }
    }
  }

  copy::DirectProgress copyProgress(std::uint64_t before) {
    copy::DirectProgress direct;
    direct.stop = options_.stop;
    if (progress_.bytes)
      direct.bytes = [this, before](std::uint64_t bytes) {
        progress_.bytes(before + bytes, progressTotal_);
      };
    return direct;
  }

  std::function<void(std::uint64_t)> readReporter(std::uint64_t before) {
    if (!progress_.bytes) return {};
    return [this, read = before](std::uint64_t n) mutable {
      read += n;
      progress_.bytes(read, progressTotal_);
    };
  }

  const OffloadOptions& options_;
  const OffloadProgress& progress_;
  const KdFileManager::CopyDigest digest_;               // the verifying kind
  std::vector<KdFileManager::CopyDigest> otherDigests_;  // the further kinds, recorded only
  OffloadReport report_;
  CardTree tree_;
  offload::CardHistories cardHistories_;  // the card's own hash lists, when it keeps any
  std::vector<Target> targets_;
  std::uint64_t done_ = 0;
  std::uint64_t progressTotal_ = 0;  // the card's bytes, twice with sourceVerify
  bool ran_ = false;                 // past the checks: the destinations were touched
};

}  // namespace

bool OffloadReport::allGood() const {
  if (!error.empty() || destinations.empty() || !missingFromCard.empty()) return false;
  return std::all_of(destinations.begin(), destinations.end(),
                     [](const OffloadDestination& d) { return d.good(); });
}

std::optional<std::string> offloadOptionsProblem(const OffloadOptions& options) {
  if (options.card.empty()) return "No card was given";
  if (options.destinations.empty()) return "At least one destination is needed";
  if (std::optional<std::string> problem = options.hash.problem()) return problem;
  for (const std::string& kind : options.hash.all())
    if (options.mhl && !isMhlHashFormat(kind))
      return "The hash list (ascmhl) cannot hold " + kind +
             " digests: choose xxh64, xxh3, xxh128, md5 or sha1, or leave the hash list out with "
             "--no-mhl";
  if (!options.name.empty() &&
      (options.name == "." || options.name == ".." || options.name.find('/') != std::string::npos ||
       options.name.find('\0') != std::string::npos))
    return "The name \"" + options.name + "\" cannot be a folder's name";
  return std::nullopt;
}

std::string offloadPartName(const std::string& fileName) {
  // A name's length is limited (255 bytes on most file systems).
  constexpr std::size_t kRoom = 255 - std::char_traits<char>::length("..kdpart");
  std::string name = fileName.substr(0, kRoom);
  while (name.size() < fileName.size() && !name.empty() &&
         (static_cast<unsigned char>(fileName[name.size()]) & 0xC0) == 0x80)
    name.pop_back();  // do not cut a character in two
  return "." + name + ".kdpart";
}

OffloadReport offloadCard(const OffloadOptions& options, const OffloadProgress& progress) {
  return Run(options, progress).go();
}

}  // namespace kd
