// The card's own hash lists in an offload: checked against, copied byte for
// byte into every destination, and continued there.
#include "files/offload/OffloadHistory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>

#include "common/AtomicFile.h"
#include "common/UniqueFd.h"
#include "files/mhl/MhlShared.h"

namespace kd::offload {
namespace {

using mhl::kMaxManifestBytes;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The kinds a check can compute, the fastest first.
constexpr std::array<std::string_view, 5> kComputable = {"xxh128", "xxh3", "xxh64", "md5", "sha1"};

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : name.empty() ? folder : folder + "/" + name;
}

std::size_t depth(const std::string& root) {
  return root.empty() ? 0 : 1 + static_cast<std::size_t>(std::count(root.begin(), root.end(), '/'));
}

// Opens the folder `relative` below `root`, one level at a time, never
// following a link; with `make`, what is missing is made first. Without it,
// a missing folder gives none with errno ENOENT and no `error`.
UniqueFd openFolderBelow(int root, const std::string& relative, bool make, std::string& error) {
  UniqueFd fd(::fcntl(root, F_DUPFD_CLOEXEC, 0));
  for (std::size_t start = 0; fd && start < relative.size();) {
    std::size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    const std::string part = relative.substr(start, end - start);
    if (make && ::mkdirat(fd.get(), part.c_str(), 0755) != 0 && errno != EEXIST) break;
    fd.reset(retryOnEintr([&] { return ::openat(fd.get(), part.c_str(), kFolderFlags); }));
    start = end + 1;
  }
  if (!fd && (make || errno != ENOENT))
    error = std::string("cannot open the folder ") + relative + ": " + std::strerror(errno);
  return fd;
}

bool chainStartsWith(const std::vector<MhlChainEntry>& chain,
                     const std::vector<MhlChainEntry>& start) {
  return chain.size() >= start.size() && std::equal(start.begin(), start.end(), chain.begin());
}

// Writes `bytes` as `name` in `dir` unless a file with those very bytes is
// there (left by an interrupted run), then reads it back from the device and
// compares its digest with that of `bytes`.
bool copyVerified(int dir, const std::string& name, const std::string& bytes, AtomicReplace how,
                  std::string& error) {
  struct stat st {};
  const bool there = ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
  if (there && how == AtomicReplace::NoReplace) {
    const Result<std::string, ReadError> old =
        readRegularFileAt(dir, name, bytes.size() + 1, false);
    if (!old || *old != bytes) {
      error = "another file named " + name + " is already there; it was left as it is";
      return false;
    }
  } else if (Result<void> written = writeFileAtomicallyAt(dir, name, bytes, how); !written) {
    error = written.error().message();
    return false;
  }
  const std::optional<KdFileManager::CopyDigest> kind = KdFileManager::copyDigestNamed("xxh128");
  if (!kind) {
    error = "the xxh128 digest is not available";
    return false;
  }
  const std::unique_ptr<KdFileManager::CopyDigester> digester = kind->make();
  if (!digester) {
    error = "out of memory";
    return false;
  }
  digester->update(bytes.data(), bytes.size());
  const std::optional<std::string> expected = digester->text();
  const std::optional<std::string> found = digestOfFile(dir, name, *kind, true, {}, error);
  if (!found) return false;
  if (found != expected) {
    error = name + " differs from the card's when read back from the device";
    return false;
  }
  return true;
}

}  // namespace

bool CardHistories::load(const std::string& card, const CardTree& tree, std::string& error) {
  card_ = card;
  histories_.clear();
  if (tree.histories.empty()) return true;
  // The card as named (it may be reached through a link); below it, no link
  // is followed.
  UniqueFd top(
      retryOnEintr([&] { return ::open(card.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!top) {
    error = "The card " + card + " cannot be opened: " + std::strerror(errno);
    return false;
  }
  for (const std::string& root : tree.histories) {
    History h;
    h.root = root;
    const std::string tracked = joined(card, root);
    const std::string where = tracked + "/" + std::string(MhlHistory::kFolderName);
    std::string why;
    const UniqueFd folder = openFolderBelow(top.get(), root, false, why);
    if (!folder || !MhlHistory::loadAt(folder.get(), tracked, h.history, why)) {
      error = "The card's hash list " + where +
              " cannot be read: " + (why.empty() ? std::strerror(ENOENT) : why);
      return false;
    }
    if (h.history.generations() == 0) continue;  // an ascmhl folder that holds no history
    // The chain is kept as the bytes the manifests were checked against.
    h.chainBytes = h.history.chainBytes().value_or(std::string());
    for (MhlHash& record : h.history.goodRecords())
      h.good[record.path].push_back(std::move(record));
    histories_.push_back(std::move(h));
  }
  return true;
}

std::vector<std::string> CardHistories::roots() const {
  std::vector<std::string> out;
  for (const History& h : histories_) out.push_back(h.root);
  return out;
}

const CardHistories::History* CardHistories::covering(const std::string& path,
                                                      std::string* relative) const {
  const History* best = nullptr;
  for (const History& h : histories_)
    if (holds(h.root, path) && path != h.root && (!best || h.root.size() > best->root.size()))
      best = &h;
  if (best && relative) *relative = below(best->root, path);
  return best;
}

HistoryCheck CardHistories::check(
    const std::string& path, std::uint64_t size, const std::string& runKind,
    const std::string& runDigest,
    const std::function<std::optional<std::string>(const KdFileManager::CopyDigest&,
                                                   std::string& error)>& readAgain) const {
  HistoryCheck c;
  std::string relative;
  const History* h = covering(path, &relative);
  if (!h) return c;
  const auto records = h->good.find(relative);
  if (records == h->good.end()) {
    c.outcome = HistoryCheck::Outcome::New;
    return c;
  }
  const auto inKind = [&](std::string_view kind) -> const MhlHash* {
    for (const MhlHash& r : records->second)
      if (r.format == kind) return &r;
    return nullptr;
  };
  const MhlHash* record = inKind(runKind);
  for (std::size_t i = 0; !record && i < kComputable.size(); ++i) record = inKind(kComputable[i]);
  if (!record) {
    c.outcome = HistoryCheck::Outcome::Unchecked;
    c.reason = "it cannot be checked against the card's hash list: that records it only in " +
               records->second.front().format + ", which kd cannot compute";
    return c;
  }
  c.kind = record->format;
  c.recorded = record->digest;
  if (record->size && *record->size != size) {
    c.outcome = HistoryCheck::Outcome::Mismatch;
    c.reason = "the source does not match its hash list: it recorded " +
               std::to_string(*record->size) + " bytes, the card has " + std::to_string(size);
    return c;
  }
  if (c.kind == runKind) {
    c.found = runDigest;
  } else {
    std::string error;
    const std::optional<KdFileManager::CopyDigest> digest = KdFileManager::copyDigestNamed(c.kind);
    std::optional<std::string> found;
    if (digest) found = readAgain(*digest, error);
    if (!found) {
      c.outcome = HistoryCheck::Outcome::Unchecked;
      c.reason = "reading it again from the card for its " + c.kind +
                 " digest (the kind its hash list recorded) failed: " + error;
      return c;
    }
    c.found = *found;
  }
  if (c.found == c.recorded) {
    c.outcome = HistoryCheck::Outcome::Match;
  } else {
    c.outcome = HistoryCheck::Outcome::Mismatch;
    c.reason = "the source does not match its hash list: it recorded " + c.kind + " " + c.recorded +
               ", the card gives " + c.found;
  }
  return c;
}

std::vector<std::string> CardHistories::missing(const CardTree& tree) const {
  std::set<std::string> present, left;
  for (const CardFile& f : tree.files) present.insert(f.path);
  for (const OffloadExclusion& e : tree.excluded) left.insert(e.path);
  std::vector<std::string> out;
  for (const History& h : histories_)
    for (const std::string& path : h.history.recordedPaths()) {
      const std::string full = joined(h.root, path);
      std::string relative;
      // A deeper hash list speaks for what lies below it.
      if (covering(full, &relative) == &h && !present.count(full) && !within(left, full))
        out.push_back(full);
    }
  std::sort(out.begin(), out.end());
  return out;
}

std::optional<std::string> CardHistories::destinationProblem(int destination,
                                                             const std::string& folder) const {
  for (const History& h : histories_) {
    const std::string tracked = joined(folder, h.root);
    MhlHistory there;
    std::string why;
    const UniqueFd below = openFolderBelow(destination, h.root, false, why);
    if (below ? !MhlHistory::loadAt(below.get(), tracked, there, why) : !why.empty())
      return "The destination " + tracked + " keeps a hash list that cannot be read (" + why +
             "), so the card's cannot be continued there; nothing was written";
    // The same history: the card's, or the card's continued by an earlier
    // offload, or an earlier copy of it that the card has continued since.
    if (chainStartsWith(there.chain(), h.history.chain()) ||
        chainStartsWith(h.history.chain(), there.chain()))
      continue;
    return "The destination " + tracked +
           " already keeps a hash list (ascmhl) that is not the card's; it is never replaced, so "
           "nothing was written. Offload into another folder (--name), or leave the card's hash "
           "lists out with --ignore-source-history";
  }
  return std::nullopt;
}

UniqueFd CardHistories::install(const History& h, int destination, const std::string& folder,
                                std::string& error) const {
  const std::string name(MhlHistory::kFolderName);
  UniqueFd tracked = openFolderBelow(destination, h.root, true, error);
  if (!tracked) return tracked;
  if (::mkdirat(tracked.get(), name.c_str(), 0755) != 0 && errno != EEXIST) {
    error = std::string("cannot make the folder: ") + std::strerror(errno);
    return {};
  }
  UniqueFd dir(retryOnEintr([&] { return ::openat(tracked.get(), name.c_str(), kFolderFlags); }));
  if (!dir) {
    error = std::string("cannot open it (a link is never followed): ") + std::strerror(errno);
    return {};
  }
  MhlHistory there;
  if (!MhlHistory::loadAt(tracked.get(), joined(folder, h.root), there, error)) return {};
  const std::vector<MhlChainEntry>& chain = h.history.chain();
  if (chainStartsWith(there.chain(), chain)) return tracked;  // already there, checked by C4 ID
  if (!chainStartsWith(chain, there.chain())) {
    error = "it holds a hash list that is not the card's";
    return {};
  }
  const std::string cardFolder = joined(card_, h.root) + "/" + name;
  UniqueFd source(retryOnEintr([&] { return ::open(cardFolder.c_str(), kFolderFlags); }));
  if (!source) {
    error = "cannot open " + cardFolder + ": " + std::strerror(errno);
    return {};
  }
  for (std::size_t i = there.chain().size(); i < chain.size(); ++i) {
    const MhlChainEntry& entry = chain[i];
    const Result<std::string, ReadError> bytes =
        readRegularFileAt(source.get(), entry.file, kMaxManifestBytes, false);
    if (!bytes || mhlC4Id(*bytes) != entry.c4) {
      error = cardFolder + "/" + entry.file + " changed on the card since it was read";
      return {};
    }
    if (!copyVerified(dir.get(), entry.file, *bytes, AtomicReplace::NoReplace, error)) return {};
  }
  if (!copyVerified(dir.get(), std::string(MhlHistory::kChainName), h.chainBytes,
                    AtomicReplace::Replace, error))
    return {};
  return tracked;
}

std::optional<std::string> CardHistories::write(
    const HistoryGenerations& in,
    std::vector<std::pair<std::string, std::string>>& problems) const {
  // Every hash list the destination keeps for the card: the card's, and at
  // the top its own when the card keeps none there. Deepest first, so that a
  // parent's generation can refer to its children's.
  struct Level {
    std::string root;
    const History* card = nullptr;
    MhlHistory loaded{};
    MhlHistory* history = nullptr;
    std::optional<MhlDirectoryDigest> rootDigest{};  // of the generation added
    std::optional<MhlChainEntry> added{};
  };
  std::vector<Level> levels;
  for (const History& h : histories_) {
    levels.emplace_back();
    levels.back().root = h.root;
    levels.back().card = &h;
  }
  if (levels.empty() || !levels.front().root.empty()) levels.insert(levels.begin(), Level{});
  std::stable_sort(levels.begin(), levels.end(),
                   [](const Level& a, const Level& b) { return depth(a.root) > depth(b.root); });
  auto levelOf = [&](const std::string& path) -> const Level* {
    const Level* best = nullptr;
    for (const Level& l : levels)
      if (holds(l.root, path) && path != l.root && (!best || l.root.size() > best->root.size()))
        best = &l;
    return best;
  };

  std::optional<std::string> top;
  for (Level& level : levels) {
    const std::string tracked = joined(in.folder, level.root);
    std::string error;
    if (level.card) {
      const UniqueFd there = install(*level.card, in.destination, in.folder, error);
      if (!there) {
        problems.emplace_back(tracked + "/ascmhl",
                              "the card's hash list cannot be copied here: " + error);
        continue;
      }
      if (!MhlHistory::loadAt(there.get(), tracked, level.loaded, error)) {
        problems.emplace_back(tracked + "/ascmhl", "the copied hash list cannot be read: " + error);
        continue;
      }
      level.history = &level.loaded;
    } else if (in.own && in.own->loaded()) {
      level.history = in.own;
    } else {
      continue;  // the destination's own list did not load: said before the run
    }
    std::vector<MhlHash> entries;
    for (const MhlHash& e : *in.entries)
      if (levelOf(e.path) == &level)
        entries.push_back(e), entries.back().path = below(level.root, e.path);
    std::vector<std::string> paths;
    for (const std::string& p : *in.paths)
      if (levelOf(p) == &level) paths.push_back(below(level.root, p));
    std::vector<MhlFolder> folders;
    std::vector<MhlReference> references;
    for (const MhlFolder& f : *in.folders) {
      if (!holds(level.root, f.path)) continue;
      MhlFolder mine = f;
      mine.path = below(level.root, f.path);
      if (f.path == level.root || levelOf(f.path) == &level) {
        // A folder of this list, or one that keeps a list of its own.
        const auto child = std::find_if(levels.begin(), levels.end(), [&](const Level& l) {
          return l.card && l.root == f.path && &l != &level;
        });
        if (child != levels.end() && f.path != level.root) {
          mine.given = child->rootDigest.value_or(MhlDirectoryDigest{in.format, "", ""});
          if (child->added)
            references.push_back(
                {mine.path + "/" + std::string(MhlHistory::kFolderName) + "/" + child->added->file,
                 child->added->c4});
        }
        folders.push_back(std::move(mine));
      }
    }
    if (entries.empty() && references.empty()) continue;
    const MhlDirectoryHashes directories =
        mhlGenerationDirectoryHashes(paths, entries, *level.history, folders, in.format);
    const std::string name =
        level.root.empty() ? in.name : level.root.substr(level.root.rfind('/') + 1);
    const std::optional<std::string> manifest = level.history->addGeneration(
        in.creator, name, in.patterns, entries, error, "transfer", directories, references);
    if (!manifest) {
      problems.emplace_back(tracked + "/ascmhl", "the hash list cannot be written: " + error);
      continue;
    }
    level.added = level.history->chain().back();
    level.rootDigest =
        directories.root.empty() ? MhlDirectoryDigest{in.format, "", ""} : directories.root.front();
    if (level.root.empty()) top = manifest;
  }
  return top;
}

}  // namespace kd::offload
