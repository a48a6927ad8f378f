// Checking a folder against its ASC MHL history, without the card.
#include "files/offload/FolderVerify.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "common/UniqueFd.h"
#include "files/mhl/MhlDirectoryHash.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/OffloadInternal.h"
#include "files/offload/TransferReport.h"

namespace kd {
namespace {

// The kinds a check can compute, the fastest first: a file recorded with
// several is read once for all of them, and this is the order they are
// compared and named in.
constexpr std::array<std::string_view, 5> kPreferred = {"xxh128", "xxh3", "xxh64", "md5", "sha1"};

int preference(std::string_view format) {
  const auto it = std::find(kPreferred.begin(), kPreferred.end(), format);
  return it == kPreferred.end() ? -1 : static_cast<int>(it - kPreferred.begin());
}

std::chrono::system_clock::time_point timeOf(const struct timespec& t) {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(
          std::chrono::seconds(t.tv_sec) + std::chrono::nanoseconds(t.tv_nsec)));
}

// Opens the folder `relative` below `root` without following any link and
// without leaving `root`; an invalid descriptor with errno set otherwise.
UniqueFd openBeneath(int root, const std::string& relative) {
  struct open_how how {};
  how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return UniqueFd(retryOnEintr([&] {
    return static_cast<int>(::syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how));
  }));
}

std::string baseName(const std::string& folder) {
  std::string name = folder;
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

}  // namespace

FolderVerifyReport verifyFolder(const FolderVerifyOptions& options,
                                const OffloadProgress& progress) {
  const auto started = std::chrono::steady_clock::now();
  FolderVerifyReport report;
  report.folder = options.folder;
  auto finish = [&]() -> FolderVerifyReport {
    report.elapsed = std::chrono::steady_clock::now() - started;
    return report;
  };

  struct stat st {};
  if (::stat(options.folder.c_str(), &st) != 0) {
    report.error = "Cannot read the folder " + options.folder + ": " + std::strerror(errno);
    return finish();
  }
  if (!S_ISDIR(st.st_mode)) {
    report.error = options.folder + " is not a folder";
    return finish();
  }
  const UniqueFd root(retryOnEintr(
      [&] { return ::open(options.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!root) {
    report.error = "Cannot read the folder " + options.folder + ": " + std::strerror(errno);
    return finish();
  }
  MhlHistory history;
  std::string error;
  if (!MhlHistory::load(options.folder, history, error)) {
    report.error = "The hash list of " + options.folder + " cannot be read: " + error;
    return finish();
  }
  report.generations = history.generations();
  if (report.generations == 0) {
    report.error = options.folder +
                   " keeps no hash list (no ascmhl folder with a chain file): there is nothing "
                   "to check it against";
    return finish();
  }
  const std::vector<std::string> patterns = history.generationList().back().ignorePatterns;

  // What each file was when it was last found good, in every kind this
  // check can compute, the fastest first.
  std::map<std::string, std::vector<MhlHash>> expected;
  std::set<std::string> everGood;
  for (MhlHash& record : history.goodRecords()) {
    everGood.insert(record.path);
    if (preference(record.format) < 0) continue;
    expected[record.path].push_back(std::move(record));
  }
  for (auto& [path, records] : expected)
    std::sort(records.begin(), records.end(), [](const MhlHash& a, const MhlHash& b) {
      return preference(a.format) < preference(b.format);
    });
  // New files are read in the kind most files were recorded with (the
  // fastest of each file's).
  std::map<std::string, int> kindCounts;
  for (const auto& [path, records] : expected) ++kindCounts[records.front().format];
  report.hash = "xxh64";
  int most = 0;
  for (const auto& [kind, count] : kindCounts)
    if (count > most) most = count, report.hash = kind;
  // Recorded, but with nothing this check can compare.
  std::map<std::string, std::string> uncheckable;
  for (const std::string& path : history.recordedPaths())
    if (!expected.count(path))
      uncheckable[path] = everGood.count(path) ? "recorded only in a kind this check cannot compute"
                                               : "recorded only as failed, never as good";

  offload::CardTree tree = offload::readCard(options.folder, true);
  if (!tree.error.empty()) {
    report.error = tree.error;
    return finish();
  }
  std::set<std::string> left;  // excluded paths, recorded files below them are not missing
  for (OffloadExclusion& e : tree.excluded) {
    if (e.path == MhlHistory::kFolderName) continue;  // the history itself
    left.insert(e.path);
    report.excluded.push_back(std::move(e));
  }
  // A folder inside that keeps a hash list of its own answers for what is
  // below it: it is checked with that list (kd verify on it), not with this one.
  std::set<std::string> inside;
  for (const std::string& r : tree.histories)
    if (!r.empty()) inside.insert(r);
  std::vector<const offload::CardFile*> files;
  std::uint64_t total = 0;
  for (const offload::CardFile& f : tree.files) {
    // The transfer reports beside the hash list are the offload's own.
    if (f.path.find('/') == std::string::npos &&
        offload::matchesIgnorePattern({std::string(kTransferReportPattern)}, f.path, false))
      continue;
    const bool nested = ("/" + f.path).find("/ascmhl/") != std::string::npos;
    const bool kept = offload::within(inside, f.path);
    if (nested || kept || offload::matchesIgnorePattern(patterns, f.path, false)) {
      left.insert(f.path);
      report.excluded.push_back({f.path, nested ? "a hash list of a folder inside"
                                         : kept ? "kept by the hash list of a folder inside"
                                                : "left out by the hash list"});
      continue;
    }
    files.push_back(&f);
    total += f.size;
  }

  const auto now = std::chrono::system_clock::now();
  std::vector<MhlHash> entries;
  std::map<std::string, std::string> newDigests;  // path -> digest in report.hash
  std::set<std::string> present;
  std::uint64_t done = 0;
  for (const offload::CardFile* f : files) {
    if (options.stop && options.stop->load()) {
      report.error = "Stopped before every file was read; nothing was added to the hash list";
      return finish();
    }
    present.insert(f->path);
    if (progress.fileStarted) progress.fileStarted(f->path, f->size);
    const auto record = expected.find(f->path);
    std::vector<std::string> kinds;
    if (record != expected.end())
      for (const MhlHash& r : record->second) kinds.push_back(r.format);
    else
      kinds.push_back(report.hash);
    std::vector<KdFileManager::CopyDigest> digests;
    std::string missingKind;
    for (const std::string& kind : kinds) {
      if (std::optional<KdFileManager::CopyDigest> digest = KdFileManager::copyDigestNamed(kind))
        digests.push_back(std::move(*digest));
      else if (missingKind.empty())
        missingKind = kind;
    }
    std::string why;
    std::optional<std::vector<std::string>> found;
    // The file's folder is opened beneath the checked folder without
    // following any link: a folder swapped for a link since the listing
    // cannot make the check read a file outside.
    const std::size_t slash = f->path.rfind('/');
    UniqueFd parent = slash == std::string::npos
                          ? UniqueFd(::fcntl(root.get(), F_DUPFD_CLOEXEC, 0))
                          : openBeneath(root.get(), f->path.substr(0, slash));
    const std::string name = slash == std::string::npos ? f->path : f->path.substr(slash + 1);
    if (!parent) {
      why = std::string("its folder cannot be opened without following a link (") +
            std::strerror(errno) + ")";
    } else if (missingKind.empty()) {
      found = offload::digestsOfFile(
          parent.get(), name, digests, true,
          [&](std::uint64_t n) {
            done += n;
            if (progress.bytes) progress.bytes(done, total);
          },
          why);
    } else {
      why = "the " + missingKind + " digest is not available";
    }
    std::optional<std::string> recorded;
    if (record != expected.end()) recorded = record->second.front().digest;
    if (!found) {
      report.changed.push_back({f->path, "cannot be read: " + why, recorded, std::nullopt});
      continue;
    }
    if (record == expected.end()) {
      if (const auto u = uncheckable.find(f->path); u != uncheckable.end())
        report.changed.push_back({f->path, u->second, std::nullopt, found->front()});
      else
        newDigests.emplace(f->path, found->front());
      continue;
    }
    // Every kind must agree; the first that does not is the one named. A
    // file that differs in one kind is recorded as failed in all of them.
    const std::vector<MhlHash>& records = record->second;
    std::size_t differs = records.size();
    for (std::size_t k = 0; k < records.size() && differs == records.size(); ++k)
      if ((*found)[k] != records[k].digest) differs = k;
    const std::optional<std::uint64_t> size = records.front().size;
    const bool resized = size && *size != f->size;
    const MhlAction action =
        differs < records.size() || resized ? MhlAction::Failed : MhlAction::Verified;
    for (std::size_t k = 0; k < records.size(); ++k)
      entries.push_back(
          {f->path, f->size, timeOf(f->modified), records[k].format, (*found)[k], action, now});
    if (resized) {
      report.changed.push_back({f->path,
                                "its size changed from " + std::to_string(*size) + " to " +
                                    std::to_string(f->size) + " bytes",
                                recorded, found->front()});
    } else if (differs < records.size()) {
      std::string reason = "its bytes differ from what the hash list recorded";
      if (records.size() > 1) reason += " (in " + records[differs].format + ")";
      report.changed.push_back({f->path, reason, records[differs].digest, (*found)[differs]});
    } else {
      ++report.filesVerified;
    }
  }
  report.bytesRead = done;

  // The directory hashes of the folder as it was read: the digests found, a
  // file that could not be read known by none.
  std::vector<MhlHash> digested = entries;
  for (const auto& [path, digest] : newDigests)
    digested.push_back(
        {path, std::nullopt, std::nullopt, report.hash, digest, MhlAction::None, std::nullopt});
  for (const offload::CardFile* f : files) {
    MhlHash present;
    present.path = f->path;
    digested.push_back(std::move(present));
  }
  std::vector<MhlFolder> folders;
  for (const offload::CardFolder& f : tree.folders)
    if (("/" + f.path + "/").find("/ascmhl/") == std::string::npos &&
        !offload::matchesIgnorePattern(patterns, f.path, true) &&
        (inside.count(f.path) || !offload::within(inside, f.path)))
      folders.push_back({f.path, timeOf(f.modified),
                         inside.count(f.path) ? std::optional<MhlDirectoryDigest>(
                                                    MhlDirectoryDigest{report.hash, "", ""})
                                              : std::nullopt});
  // In the kind of new files first, then every other kind read.
  std::vector<std::string> formats = {report.hash};
  for (const std::string_view kind : kPreferred)
    if (kind != report.hash && std::any_of(entries.begin(), entries.end(),
                                           [&](const MhlHash& e) { return e.format == kind; }))
      formats.emplace_back(kind);
  const MhlDirectoryHashes directories = mhlDirectoryHashes(digested, folders, formats);

  // Gone, or (a new file with a gone file's digest) renamed.
  std::map<std::string, std::string> gone;  // path -> digest in report.hash, "" otherwise
  for (const std::string& path : history.recordedPaths()) {
    if (present.count(path) || offload::within(left, path)) continue;
    gone[path] = std::string();
    if (const auto record = expected.find(path); record != expected.end())
      for (const MhlHash& r : record->second)
        if (r.format == report.hash) gone[path] = r.digest;
  }
  for (const auto& [path, goneDigest] : gone) {
    const std::string& digest = goneDigest;  // a lambda cannot name a structured binding here
    auto match = std::find_if(newDigests.begin(), newDigests.end(),
                              [&](const auto& n) { return !digest.empty() && n.second == digest; });
    if (match != newDigests.end()) {
      report.renamed.emplace_back(path, match->first);
      newDigests.erase(match);
    } else {
      report.missing.push_back(path);
    }
  }
  for (const auto& [path, digest] : newDigests) report.added.push_back(path);

  if (options.mhl && !entries.empty()) {
    MhlCreator creator;
    creator.creationDate = now;
    char host[256] = {};
    if (::gethostname(host, sizeof host - 1) != 0) std::strcpy(host, "localhost");
    creator.hostname = host;
    creator.tool = options.tool;
    creator.toolVersion = options.toolVersion;
    report.manifest = history.addGeneration(creator, baseName(options.folder), patterns, entries,
                                            error, "in-place", directories);
    if (!report.manifest)
      report.error = "What was found could not be added to the hash list: " + error;
  }
  return finish();
}

}  // namespace kd
