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

using offload::below;
using offload::holds;

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

// One folder that keeps a hash list: the checked folder itself, or a folder
// inside it that answers for what is below it.
struct Level {
  std::string root;  // relative to the checked folder; "" for it
  MhlHistory history;
  FolderVerifyReport report;
  std::vector<const offload::CardFile*> files;  // to read, paths relative to the checked folder
  std::vector<std::string> patterns;
  std::vector<MhlHash> entries;  // the generation to add, paths relative to `root`
  MhlDirectoryHashes directories;
  std::vector<MhlFolder> folders;
  std::optional<MhlChainEntry> added;  // once written
};

// What a check of every level shares: the checked folder open, the tree read
// once, the progress over all levels.
struct Check {
  int root;
  const offload::CardTree& tree;
  const FolderVerifyOptions& options;
  const OffloadProgress& progress;
  std::vector<Level>& levels;
  std::chrono::system_clock::time_point now;
  std::uint64_t done = 0, total = 0;

  // The deepest level whose folder holds `path` (and is not `path` itself).
  const Level* levelOf(const std::string& path) const {
    const Level* best = nullptr;
    for (const Level& l : levels)
      if (holds(l.root, path) && path != l.root && (!best || l.root.size() > best->root.size()))
        best = &l;
    return best;
  }

  void select(Level& level);
  bool read(Level& level);
  void write(Level& level);
};

// The files of the level to read, and what it leaves out.
void Check::select(Level& level) {
  level.patterns = level.history.generationList().back().ignorePatterns;
  FolderVerifyReport& report = level.report;
  for (const OffloadExclusion& e : tree.excluded) {
    if (levelOf(e.path) != &level || below(level.root, e.path) == MhlHistory::kFolderName) continue;
    report.excluded.push_back({below(level.root, e.path), e.reason});
  }
  for (const offload::CardFile& f : tree.files) {
    if (levelOf(f.path) != &level) continue;
    const std::string path = below(level.root, f.path);
    // The transfer reports beside the hash list are the offload's own.
    if (path.find('/') == std::string::npos &&
        offload::matchesIgnorePattern({std::string(kTransferReportPattern)}, path, false))
      continue;
    const bool nested = ("/" + path).find("/ascmhl/") != std::string::npos;
    if (nested || offload::matchesIgnorePattern(level.patterns, path, false)) {
      report.excluded.push_back(
          {path, nested ? "a hash list of a folder inside" : "left out by the hash list"});
      continue;
    }
    level.files.push_back(&f);
    total += f.size;
  }
}

// Reads every file of the level and compares it with the level's history.
// False when the check was stopped.
bool Check::read(Level& level) {
  FolderVerifyReport& report = level.report;
  const MhlHistory& history = level.history;
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
  std::set<std::string> left;  // excluded paths, recorded files below them are not missing
  for (const OffloadExclusion& e : report.excluded) left.insert(e.path);
  // A folder inside with a hash list of its own answers for what is below it.
  for (const Level& l : levels)
    if (&l != &level && levelOf(l.root) == &level) left.insert(below(level.root, l.root));

  std::map<std::string, std::string> newDigests;  // path -> digest in report.hash
  std::set<std::string> present;
  const std::uint64_t before = done;
  for (const offload::CardFile* f : level.files) {
    if (options.stop && options.stop->load()) return false;
    const std::string path = below(level.root, f->path);
    present.insert(path);
    if (progress.fileStarted) progress.fileStarted(f->path, f->size);
    const auto record = expected.find(path);
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
    UniqueFd parent = slash == std::string::npos ? UniqueFd(::fcntl(root, F_DUPFD_CLOEXEC, 0))
                                                 : openBeneath(root, f->path.substr(0, slash));
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
      report.changed.push_back({path, "cannot be read: " + why, recorded, std::nullopt});
      continue;
    }
    if (record == expected.end()) {
      if (const auto u = uncheckable.find(path); u != uncheckable.end())
        report.changed.push_back({path, u->second, std::nullopt, found->front()});
      else
        newDigests.emplace(path, found->front());
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
      level.entries.push_back(
          {path, f->size, timeOf(f->modified), records[k].format, (*found)[k], action, now});
    if (resized) {
      report.changed.push_back({path,
                                "its size changed from " + std::to_string(*size) + " to " +
                                    std::to_string(f->size) + " bytes",
                                recorded, found->front()});
    } else if (differs < records.size()) {
      std::string reason = "its bytes differ from what the hash list recorded";
      if (records.size() > 1) reason += " (in " + records[differs].format + ")";
      report.changed.push_back({path, reason, records[differs].digest, (*found)[differs]});
    } else {
      ++report.filesVerified;
    }
  }
  report.bytesRead = done - before;

  // The directory hashes of the folder as it was read: the digests found, a
  // file that could not be read known by none.
  std::vector<MhlHash> digested = level.entries;
  for (const auto& [path, digest] : newDigests)
    digested.push_back(
        {path, std::nullopt, std::nullopt, report.hash, digest, MhlAction::None, std::nullopt});
  for (const std::string& path : present) {
    MhlHash there;
    there.path = path;
    digested.push_back(std::move(there));
  }
  // The level's folders: its own, those no deeper hash list holds, and
  // those that keep one of their own (known by that list's root hash).
  for (const offload::CardFolder& f : tree.folders) {
    if (!holds(level.root, f.path) || (f.path != level.root && levelOf(f.path) != &level)) continue;
    const std::string path = below(level.root, f.path);
    if (("/" + path + "/").find("/ascmhl/") != std::string::npos ||
        offload::matchesIgnorePattern(level.patterns, path, true))
      continue;
    std::optional<MhlDirectoryDigest> given;
    for (const Level& inner : levels)
      if (f.path != level.root && inner.root == f.path) {
        given = MhlDirectoryDigest{report.hash, "", ""};  // read first, deepest first
        for (const MhlDirectoryDigest& d : inner.directories.root)
          if (d.format == report.hash) given = d;
      }
    level.folders.push_back({path, timeOf(f.modified), given});
  }
  // In the kind of new files first, then every other kind read.
  std::vector<std::string> formats = {report.hash};
  for (const std::string_view kind : kPreferred)
    if (kind != report.hash && std::any_of(level.entries.begin(), level.entries.end(),
                                           [&](const MhlHash& e) { return e.format == kind; }))
      formats.emplace_back(kind);
  level.directories = mhlDirectoryHashes(digested, level.folders, formats);

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
  return true;
}

// Adds the level's generation, referring to the generations just added to the
// hash lists of the folders directly inside.
void Check::write(Level& level) {
  std::vector<MhlReference> references;
  for (const Level& inner : levels)
    if (&inner != &level && inner.added && levelOf(inner.root) == &level)
      references.push_back({below(level.root, inner.root) + "/" +
                                std::string(MhlHistory::kFolderName) + "/" + inner.added->file,
                            inner.added->c4});
  if (level.entries.empty() && references.empty()) return;
  MhlCreator creator;
  creator.creationDate = now;
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0) std::strcpy(host, "localhost");
  creator.hostname = host;
  creator.tool = options.tool;
  creator.toolVersion = options.toolVersion;
  const std::string folder = level.root.empty() ? options.folder : level.root;
  std::string error;
  level.report.manifest =
      level.history.addGeneration(creator, baseName(folder), level.patterns, level.entries, error,
                                  "in-place", level.directories, references);
  if (level.report.manifest)
    level.added = level.history.chain().back();
  else
    level.report.error = "What was found could not be added to the hash list: " + error;
}

std::size_t depth(const std::string& root) {
  return root.empty() ? 0 : 1 + static_cast<std::size_t>(std::count(root.begin(), root.end(), '/'));
}

}  // namespace

bool FolderVerifyReport::allGood() const {
  return error.empty() && changed.empty() && missing.empty() && added.empty() && renamed.empty() &&
         std::all_of(inside.begin(), inside.end(),
                     [](const FolderVerifyReport& r) { return r.allGood(); });
}

FolderVerifyReport verifyFolder(const FolderVerifyOptions& options,
                                const OffloadProgress& progress) {
  const auto started = std::chrono::steady_clock::now();
  FolderVerifyReport report;
  report.folder = options.folder;
  auto finish = [&]() -> FolderVerifyReport {
    report.elapsed = std::chrono::steady_clock::now() - started;
    return report;
  };

  const UniqueFd root(retryOnEintr(
      [&] { return ::open(options.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!root) {
    report.error = errno == ENOTDIR
                       ? options.folder + " is not a folder"
                       : "Cannot read the folder " + options.folder + ": " + std::strerror(errno);
    return finish();
  }
  std::vector<Level> levels(1);
  std::string error;
  if (!MhlHistory::loadAt(root.get(), options.folder, levels[0].history, error)) {
    report.error = "The hash list of " + options.folder + " cannot be read: " + error;
    return finish();
  }
  report.generations = levels[0].history.generations();
  if (report.generations == 0) {
    report.error = options.folder +
                   " keeps no hash list (no ascmhl folder with a chain file): there is nothing "
                   "to check it against";
    return finish();
  }
  offload::CardTree tree = offload::readCard(options.folder, true);
  if (!tree.error.empty()) {
    report.error = tree.error;
    return finish();
  }
  // Each folder inside that keeps a hash list of its own is checked with it,
  // reached from the checked folder without following a link. One that cannot
  // be read fails the check; one that holds no history is no level.
  std::vector<FolderVerifyReport> unreadable;
  for (const std::string& r : tree.histories) {
    if (r.empty()) continue;
    const std::string folder = options.folder + "/" + r;
    Level level;
    level.root = r;
    level.report.folder = folder;
    const UniqueFd fd = openBeneath(root.get(), r);
    if (!fd || !MhlHistory::loadAt(fd.get(), folder, level.history, error)) {
      level.report.error =
          "The hash list of " + folder + " cannot be read: " +
          (fd ? error
              : std::string("its folder cannot be opened without following a link (") +
                    std::strerror(errno) + ")");
    } else if (level.history.generations() == 0) {
      continue;
    }
    level.report.generations = level.history.generations();
    levels.push_back(std::move(level));
  }
  Check check{root.get(), tree, options, progress, levels, std::chrono::system_clock::now()};
  // Deepest first: a folder's hash list speaks for its folders inside by the
  // root hashes their own lists were just given.
  std::stable_sort(levels.begin(), levels.end(),
                   [](const Level& a, const Level& b) { return depth(a.root) > depth(b.root); });
  for (Level& level : levels)
    if (level.report.error.empty()) check.select(level);
  for (Level& level : levels) {
    if (!level.report.error.empty()) continue;
    if (!check.read(level)) {
      report.error = "Stopped before every file was read; nothing was added to the hash list";
      return finish();
    }
  }
  if (options.mhl)
    for (Level& level : levels)
      if (level.report.error.empty()) check.write(level);
  std::sort(levels.begin(), levels.end(),
            [](const Level& a, const Level& b) { return a.root < b.root; });
  const FolderVerifyReport top = std::move(levels.front().report);
  report.hash = top.hash;
  report.filesVerified = top.filesVerified;
  report.bytesRead = check.done;
  report.changed = top.changed;
  report.missing = top.missing;
  report.added = top.added;
  report.renamed = top.renamed;
  report.excluded = top.excluded;
  report.manifest = top.manifest;
  report.error = top.error;
  for (std::size_t i = 1; i < levels.size(); ++i) {
    levels[i].report.elapsed = std::chrono::steady_clock::now() - started;
    report.inside.push_back(std::move(levels[i].report));
  }
  return finish();
}

}  // namespace kd
