// The offload's end of each file and of the run: files already at a
// destination confirmed, the hash-list entries recorded and checked against
// the card's own hash lists, the card read a second time, the hash lists
// written and the transfer reports beside them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/AtomicFile.h"
#include "files/mhl/MhlDirectoryHash.h"
#include "files/offload/OffloadRun.h"
#include "files/offload/TransferReport.h"
#include "platform/FileIO.h"

namespace kd::offload {

namespace {

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

}  // namespace

void Run::confirmPresent(Target& t, std::size_t index, const std::string& sourceDigest) {
  const CardFile& file = tree_.files[index];
  const std::string final = t.folder + "/" + file.path;
  std::optional<std::string> found;
  std::string error;
  std::optional<MhlHash> recorded;
  // With the card's hash lists in the destination, a record there may be
  // the card's own, never checked at this destination: the copy is read.
  if (t.historyUsable && cardHistories_.empty())
    recorded = t.history.latest(file.path, options_.hash.verifying());
  if (recorded && recorded->action == MhlAction::Failed) recorded.reset();  // a digest not to trust
  if (recorded && recorded->size == file.size && !options_.reverify)
    found = recorded->digest;
  else
    found = offload::digestOfFile(t.current(), baseName(file.path), digest_, options_.reverify, {},
                                  error);
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
                           *found, MhlAction::Failed, now});
    return;
  }
  ++t.report.filesSkipped;
  t.report.states[index] = OffloadFileState::AlreadyThere;
  if (options_.reverify) {
    ++t.report.filesReverified;
    record(t, index, file.size, sourceDigest, recorded ? MhlAction::Verified : MhlAction::Original,
           now);
  } else if (!recorded) {
    record(t, index, file.size, sourceDigest, MhlAction::Original, now);
  } else {
    recordOthers(t, index, file.size, now, /*onlyNew=*/true);
  }
}

void Run::record(Target& t, std::size_t index, std::uint64_t size, const std::string& digest,
                 MhlAction action, std::chrono::system_clock::time_point now) {
  const CardFile& file = tree_.files[index];
  t.entries.push_back(
      {file.path, size, timeOf(file.modified), options_.hash.verifying(), digest, action, now});
  recordOthers(t, index, size, now, /*onlyNew=*/false);
}

void Run::recordOthers(Target& t, std::size_t index, std::uint64_t size,
                       std::chrono::system_clock::time_point now, bool onlyNew) {
  const CardFile& file = tree_.files[index];
  const std::vector<std::string> kinds = options_.hash.others();
  const std::vector<std::string>& digests = report_.cardFiles[index].otherDigests;
  for (std::size_t k = 0; k < kinds.size() && k < digests.size(); ++k) {
    if (digests[k].empty()) continue;  // a digest that failed records nothing
    if (onlyNew && t.historyUsable) {
      const std::optional<MhlHash> known = t.history.latest(file.path, kinds[k]);
      if (known && known->action != MhlAction::Failed && known->digest == digests[k]) continue;
    }
    t.entries.push_back(
        {file.path, size, timeOf(file.modified), kinds[k], digests[k], MhlAction::Original, now});
  }
}

bool Run::useCardHistories() {
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

void Run::checkAgainstCardHistory(std::size_t index, const std::string& source,
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
      if (entry.path != file.path || entry.action == MhlAction::Failed) continue;
      entry.action = check.outcome == Outcome::Match ? MhlAction::Verified : MhlAction::Failed;
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

std::optional<std::string> Run::otherDigestOf(std::size_t index,
                                              const KdFileManager::CopyDigest& kind) const {
  const std::vector<std::string> kinds = options_.hash.others();
  const std::vector<std::string>& digests = report_.cardFiles[index].otherDigests;
  for (std::size_t k = 0; k < kinds.size() && k < digests.size(); ++k)
    if (!digests[k].empty() && kinds[k] == kind.name) return digests[k];
  return std::nullopt;
}

void Run::continueCardHistories(Target& t, const MhlCreator& creator,
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

void Run::finish() {
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
      fileio::setTimes(t.current(), st.st_atim, folder->modified);
    }
    t.leaveTo(1);
  }
}

void Run::readCardAgain() {
  for (std::size_t i = 0; i < tree_.files.size(); ++i) {
    if (stopAsked()) {
      report_.error = "Stopped on request while reading the card a second time";
      return;
    }
    const std::optional<std::string>& first = report_.cardFiles[i].digest;
    const CardFile& file = tree_.files[i];
    if (!first) {
      advance(file.size);
      continue;
    }
    if (progress_.fileStarted) progress_.fileStarted(file.path, file.size);
    const std::string source = trimmed(options_.card) + "/" + file.path;
    std::string error;
    std::uint64_t told = 0;
    const std::optional<std::string> second =
        offload::digestOfFile(AT_FDCWD, source, digest_, true, readReporter(told), error);
    advance(file.size > told ? file.size - told : 0);
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

void Run::writeReports() {
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
      Result<void> made = writeFileAtomicallyAt(
          t.root().fd.get(), html, transferReportHtml(report_, i), AtomicReplace::NoReplace, 0644);
      if (made)
        made = writeFileAtomicallyAt(t.root().fd.get(), csv, transferReportCsv(report_, i),
                                     AtomicReplace::NoReplace, 0644);
      if (!made) {
        error = made.error().message();
        break;
      }
      written = true;
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

}  // namespace kd::offload
