// The offload run: the card read once per file for every destination through
// the verified copy, each copy finished under a temporary name and given its
// real name only once it verified, resumable from each destination's hash
// list.
#include "files/offload/Offload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <future>
#include <memory>
#include <thread>
#include <utility>

#include "common/UniqueFd.h"
#include "files/copy/CopyEngine.h"
#include "files/offload/OffloadRun.h"
#include "platform/FileIO.h"

namespace kd {
namespace offload {

Run::Run(const OffloadOptions& options, const OffloadProgress& progress)
    : options_(options),
      progress_(progress),
      digest_(KdFileManager::copyDigestNamed(options.hash.verifying())
                  .value_or(KdFileManager::CopyDigest{})) {
  for (const std::string& kind : options.hash.others())
    otherDigests_.push_back(
        KdFileManager::copyDigestNamed(kind).value_or(KdFileManager::CopyDigest{}));
}

OffloadReport Run::go() {
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
  if (report_.name.empty() || report_.name == "." || report_.name == ".." || report_.name == "/") {
    report_.error = "The card " + options_.card + " has no folder name to copy it under: give one";
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
    // A few files on their way at a time: once a file has been read from
    // the card, the next one is read, while the earlier ones' last writes,
    // read-backs and flushes, and their taking their names, go on. The card
    // is read one file after the other, from start to end, as before. Files
    // are finished in the card's order, so the report and the hash lists
    // come out as with one at a time. The folders held open are those of
    // the files on their way: a file in another folder waits for them.
    std::deque<std::unique_ptr<Pending>> onTheirWay;
    auto finishFirst = [&] {
      finishFile(*onTheirWay.front());
      onTheirWay.pop_front();
    };
    for (std::size_t i = 0; i < tree_.files.size() && report_.error.empty(); ++i) {
      if (!onTheirWay.empty() &&
          folderOf(tree_.files[onTheirWay.back()->index].path) != folderOf(tree_.files[i].path))
        while (!onTheirWay.empty()) finishFirst();
      if (!report_.error.empty()) break;
      if (!onTheirWay.empty()) waitRead(*onTheirWay.back());
      onTheirWay.push_back(startFile(i, onTheirWay));
      if (onTheirWay.size() == kFilesOnTheirWay) finishFirst();
    }
    while (!onTheirWay.empty()) finishFirst();
    if (options_.sourceVerify && report_.error.empty()) readCardAgain();
    finish();
  }
  for (Target& t : targets_) report_.destinations.push_back(std::move(t.report));
  report_.ended = std::chrono::system_clock::now();
  report_.elapsed = Clock::now() - start;
  if (options_.report && ran_) writeReports();
  return std::move(report_);
}

// A file that failed at a destination is marked so there, whatever way it
// failed: the failures recorded while it lives are counted.
struct MarkFailures {
  std::vector<Target>& targets;
  std::size_t index;
  std::vector<std::size_t> before;
  MarkFailures(std::vector<Target>& targets, std::size_t index) : targets(targets), index(index) {
    for (const Target& t : targets) before.push_back(t.report.failures.size());
  }
  ~MarkFailures() {
    for (std::size_t i = 0; i < targets.size(); ++i)
      if (targets[i].report.failures.size() > before[i])
        targets[i].report.states[index] = OffloadFileState::Failed;
  }
  MarkFailures(const MarkFailures&) = delete;
  MarkFailures& operator=(const MarkFailures&) = delete;
};

bool Run::uses(const Pending& pending, const Target& t) {
  return std::any_of(pending.copyTo.begin(), pending.copyTo.end(),
                     [&](const Part& part) { return part.target == &t; }) ||
         std::find(pending.confirm.begin(), pending.confirm.end(), &t) != pending.confirm.end();
}

std::unique_ptr<Run::Pending> Run::startFile(std::size_t index,
                                             const std::deque<std::unique_ptr<Pending>>& before) {
  auto pending = std::make_unique<Pending>();
  pending->index = index;
  const CardFile& file = tree_.files[index];
  const std::string source = trimmed(options_.card) + "/" + file.path;
  if (progress_.fileStarted) {
    kd::MutexLock lock(progressMu_);
    progress_.fileStarted(file.path, file.size);
  }
  const std::uint64_t remainingAfter = tree_.files.size() - index - 1;
  const std::string name = baseName(file.path);
  MarkFailures mark(targets_, index);

  std::vector<KdFileManager::OpenDestination> opened;
  for (Target& t : targets_) {
    if (!t.live()) continue;
    // The files before that are still on their way here are lost with the
    // destination too.
    const auto busy = static_cast<std::uint64_t>(std::count_if(
        before.begin(), before.end(), [&](const auto& pending) { return uses(*pending, t); }));
    const std::uint64_t lostAfter = remainingAfter + busy;
    // A destination unmounted under the run leaves an empty mount point:
    // nothing may be made there, on the disk below it.
    if (std::optional<std::string> gone = t.gone()) {
      t.lose(*gone, lostAfter + 1);
      continue;
    }
    const std::string final = t.folder + "/" + file.path;
    if (std::optional<std::string> problem =
            busy != 0 ? t.intact() : t.enter(folderOf(file.path), true)) {
      loseOrFail(t, final, *problem, lostAfter);
      continue;
    }
    const int folder = t.current();
    struct stat st {};
    if (::fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      if (S_ISREG(st.st_mode) && static_cast<std::uint64_t>(st.st_size) == file.size)
        pending->confirm.push_back(&t);
      else
        t.fail(final, "something else is already there; it was left as it is");
      continue;
    }
    if (errno != ENOENT) {
      loseOrFail(t, final, std::strerror(errno), lostAfter);
      continue;
    }
    Part part{&t, partOf(file), ""};
    part.path = folderOf(final) + "/" + part.name;
    // A temporary file of a stopped run is written anew.
    if (::fstatat(folder, part.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
      ::unlinkat(folder, part.name.c_str(), 0);
    UniqueFd fd(retryOnEintr([&] {
      return ::openat(folder, part.name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      0600);
    }));
    if (!fd) {
      loseOrFail(t, part.path, std::strerror(errno), lostAfter);
      continue;
    }
    opened.push_back({part.path, folder, part.name, std::move(fd)});
    pending->copyTo.push_back(std::move(part));
  }
  if (pending->copyTo.empty()) {
    markRead(*pending);  // a file already there is read when it finishes
    return pending;
  }

  // The copy runs on a kept thread; where none can be had, here.
  auto copy = std::make_shared<std::packaged_task<KdFileManager::CopyResult()>>(
      [this, source, &p = *pending, opened = std::move(opened)]() mutable {
        KdFileManager::CopyResult result;
        {
          const copy::WhenSourceRead read([&] { markRead(p); });
          result = copy::copyToOpenFiles(source, std::move(opened), digest_, otherDigests_,
                                         /*keepPermissions=*/true, copyProgress(p.told));
        }
        markRead(p);
        return result;
      });
  pending->copied = copy->get_future();
  if (!copy::runOnKeptThread([copy] { (*copy)(); })) (*copy)();
  return pending;
}

void Run::finishFile(Pending& pending) {
  const std::size_t index = pending.index;
  const CardFile& file = tree_.files[index];
  const std::string source = trimmed(options_.card) + "/" + file.path;
  const std::uint64_t remainingAfter = tree_.files.size() - index - 1;
  std::optional<KdFileManager::CopyResult> result;
  if (pending.copied.valid()) result = pending.copied.get();
  if (!report_.error.empty()) {
    // An earlier file stopped the run: this one counts as not copied.
    for (const Part& part : pending.copyTo)
      ::unlinkat(part.target->current(), part.name.c_str(), 0);
    return;
  }
  MarkFailures mark(targets_, index);
  std::vector<std::size_t> entriesBefore;
  for (const Target& t : targets_) entriesBefore.push_back(t.entries.size());

  std::optional<std::string> sourceDigest;
  if (result) {
    if (!result->completed) {
      if (stopAsked()) {
        report_.error = "Stopped on request while copying " + source;
        for (Target& t : targets_) t.lose(report_.error, remainingAfter + 1);
      } else {
        cardFailed(source, index);
      }
      return;
    }
    sourceDigest = result->sourceDigest;
    report_.cardFiles[index].digest = sourceDigest;
    for (const std::optional<std::string>& other : result->moreSourceDigests)
      report_.cardFiles[index].otherDigests.push_back(other.value_or(""));
    report_.bytesRead += result->bytesCopied;
    finishCopies(index, pending.copyTo, *result, remainingAfter);
  }

  if (!pending.confirm.empty() && !sourceDigest) {
    std::string error;
    std::vector<KdFileManager::CopyDigest> kinds = {digest_};
    kinds.insert(kinds.end(), otherDigests_.begin(), otherDigests_.end());
    std::optional<std::vector<std::string>> digests =
        offload::digestsOfFile(AT_FDCWD, source, kinds, false, readReporter(pending.told), error);
    if (!digests) {
      cardFailed(source, index, error);
      return;
    }
    sourceDigest = digests->front();
    report_.cardFiles[index].digest = sourceDigest;
    report_.cardFiles[index].otherDigests.assign(digests->begin() + 1, digests->end());
    report_.bytesRead += file.size;
  }
  // A destination given up while the file before finished counts this one
  // as missing.
  for (Target* t : pending.confirm)
    if (t->live()) confirmPresent(*t, index, *sourceDigest);
  if (sourceDigest) checkAgainstCardHistory(index, source, *sourceDigest, entriesBefore);
  advance(file.size > pending.told ? file.size - pending.told : 0);
}

std::string Run::partOf(const CardFile& file) const {
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

void Run::loseOrFail(Target& t, const std::string& path, const std::string& reason,
                     std::uint64_t remainingAfter) {
  if (std::optional<std::string> gone = t.gone()) {
    t.fail(path, *gone);
    t.lose(*gone, remainingAfter);
  } else {
    t.fail(path, reason);
  }
}

void Run::cardFailed(const std::string& source, std::size_t index, std::string detail) {
  if (detail.empty()) {
    UniqueFd fd(retryOnEintr([&] { return ::open(source.c_str(), O_RDONLY | O_CLOEXEC); }));
    detail = fd ? "a read failed" : std::strerror(errno);
  }
  report_.error = "Reading " + source + " from the card failed (" + detail +
                  "); the offload stopped. Was the card removed?";
  for (Target& t : targets_) t.lose(report_.error, tree_.files.size() - index);
}

void Run::finishCopies(std::size_t index, const std::vector<Part>& copyTo,
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
    // Given up while the file before finished: this one counts as missing.
    if (!t.live()) {
      ::unlinkat(folder, part.c_str(), 0);
      continue;
    }
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
      if (const int err = fileio::renameNoReplaceOrLook(folder, part, folder, name)) {
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
    record(t, index, result.bytesCopied, *result.sourceDigest, MhlAction::Original, now);
  }
}

void Run::markRead(Pending& pending) {
  {
    kd::MutexLock lock(progressMu_);
    pending.read = true;
  }
  readCv_.notify_all();
}

void Run::waitRead(const Pending& pending) {
  kd::MutexLock lock(progressMu_);
  while (!pending.read) lock.wait(readCv_);
}

void Run::advance(std::uint64_t more) {
  kd::MutexLock lock(progressMu_);
  done_ += more;
  if (progress_.bytes) progress_.bytes(done_, progressTotal_);
}

copy::DirectProgress Run::copyProgress(std::uint64_t& told) {
  copy::DirectProgress direct;
  direct.stop = options_.stop;
  direct.bytes = [this, &told](std::uint64_t bytes) {
    if (bytes <= told) return;
    const std::uint64_t more = bytes - told;
    told = bytes;
    advance(more);
  };
  return direct;
}

std::function<void(std::uint64_t)> Run::readReporter(std::uint64_t& told) {
  return [this, &told](std::uint64_t n) {
    told += n;
    advance(n);
  };
}

}  // namespace offload

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

OffloadCardContents offloadCardContents(const std::string& card) {
  const offload::CardTree tree = offload::readCard(card, /*skipHistory=*/true);
  return {tree.files.size(), tree.bytes, tree.error};
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
  return offload::Run(options, progress).go();
}

}  // namespace kd
