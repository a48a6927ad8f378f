// The history folder on disk: loading it, its latest records, and adding a
// generation.
#include "files/mhl/MhlHistory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <tuple>

#include "common/AtomicFile.h"
#include "common/DateText.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "files/mhl/MhlShared.h"

namespace kd {

using mhl::hashKey;
using mhl::kMaxChainBytes;
using mhl::kMaxManifestBytes;
using mhl::shown;

// ---- The history on disk ---------------------------------------------------

namespace {

// "YYYY-MM-DD_HHMMSSZ", the date in a manifest's name.
std::string fileNameDate(std::chrono::system_clock::time_point t) {
  const CivilTime c =
      civilFromSeconds(std::chrono::floor<std::chrono::seconds>(t.time_since_epoch()).count());
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u_%02u%02u%02uZ", c.year, c.month, c.day, c.hour,
                c.minute, c.second);
  return buf;
}

std::string errnoText(int e) {
  return std::strerror(e);
}

// Whether the folder holds a manifest (a name ending in ".mhl").
bool holdsManifests(int dirFd) {
  UniqueFd copy(::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!copy) return false;
  DIR* dir = ::fdopendir(copy.get());
  if (!dir) return false;
  copy.release();
  bool found = false;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name.size() > 4 && name.ends_with(".mhl")) {
      found = true;
      break;
    }
  }
  ::closedir(dir);
  return found;
}

// The ascmhl folder of an open tracked folder: a descriptor, none with errno
// ENOENT when it is missing, or none with `error` (a link or not a folder).
UniqueFd openHistoryFolder(int trackedFd, const std::string& where, std::string& error) {
  UniqueFd dir(retryOnEintr([&] {
    return ::openat(trackedFd, std::string(MhlHistory::kFolderName).c_str(),
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  }));
  if (!dir) {
    const int e = errno;
    if (e == ELOOP || e == ENOTDIR)
      error = where + " is a link or not a folder; nothing is read or written through it";
    else if (e != ENOENT)
      error = "cannot open " + where + ": " + errnoText(e);
    errno = e;
  }
  return dir;
}

std::string describe(const ReadError& r) {
  switch (r.kind) {
    case ReadFailure::NotRegular:
      return "a link or not a regular file";
    case ReadFailure::TooLarge:
      return "too large (" + r.error.message() + ")";
    default:
      return r.error.message();
  }
}

// Holds a descriptor for as long as a history (or a copy of it) needs it.
std::shared_ptr<const int> held(UniqueFd fd) {
  return std::shared_ptr<const int>(new int(fd.release()), [](const int* p) {
    ::close(*p);
    delete p;
  });
}

}  // namespace

bool MhlHistory::load(const std::string& trackedFolder, MhlHistory& out, std::string& error) {
  out = MhlHistory{};
  UniqueFd tracked(retryOnEintr(
      [&] { return ::open(trackedFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!tracked) {
    if (errno != ENOENT) {
      error = "cannot open " + trackedFolder + ": " + errnoText(errno);
      return false;
    }
    out.trackedFolder_ = trackedFolder;
    out.loaded_ = true;
    return true;
  }
  return loadAt(tracked.get(), trackedFolder, out, error);
}

bool MhlHistory::loadAt(int trackedFolder, const std::string& shownAs, MhlHistory& out,
                        std::string& error) {
  out = MhlHistory{};
  MhlHistory history;
  history.trackedFolder_ = shownAs;
  const std::string where = shownAs + "/" + std::string(kFolderName);
  UniqueFd copy(::fcntl(trackedFolder, F_DUPFD_CLOEXEC, 0));
  if (!copy) {
    error = "cannot open " + shownAs + ": " + errnoText(errno);
    return false;
  }
  history.folder_ = held(std::move(copy));
  std::string why;
  UniqueFd dir = openHistoryFolder(*history.folder_, where, why);
  if (!dir) {
    if (!why.empty()) {
      error = why;
      return false;
    }
    history.loaded_ = true;
    out = std::move(history);
    return true;
  }
  const std::string chainName(kChainName);
  Result<std::string, ReadError> chainFile =
      readRegularFileAt(dir.get(), chainName, kMaxChainBytes, false);
  if (!chainFile) {
    if (chainFile.error().kind != ReadFailure::Missing) {
      error = where + "/" + chainName + ": " + describe(chainFile.error());
      return false;
    }
    if (holdsManifests(dir.get())) {
      error = where + " holds manifests but no " + chainName + "; the history is incomplete";
      return false;
    }
    history.loaded_ = true;
    out = std::move(history);
    return true;
  }
  if (!parseMhlChain(*chainFile, history.chain_, why)) {
    error = "damaged " + where + "/" + chainName + ": " + why;
    return false;
  }
  for (const MhlChainEntry& entry : history.chain_) {
    const std::string path = where + "/" + entry.file;
    Result<std::string, ReadError> file =
        readRegularFileAt(dir.get(), entry.file, kMaxManifestBytes, false);
    if (!file) {
      error = file.error().kind == ReadFailure::Missing
                  ? "generation " + std::to_string(entry.sequence) + "'s manifest " + path +
                        " is missing"
                  : path + ": " + describe(file.error());
      return false;
    }
    if (mhlC4Id(*file) != entry.c4) {
      error = path + " does not match the C4 ID the chain records for it (altered or damaged)";
      return false;
    }
    MhlManifest manifest;
    if (!parseMhlManifest(*file, manifest, why)) {
      error = "damaged " + path + ": " + why;
      return false;
    }
    history.index(entry, manifest);
  }
  history.chainBytes_ = std::move(*chainFile);
  history.loaded_ = true;
  out = std::move(history);
  return true;
}

void MhlHistory::index(const MhlChainEntry& entry, const MhlManifest& manifest) {
  MhlGeneration generation{entry, manifest.creator, manifest.process, manifest.ignorePatterns};
  std::set<std::string_view> paths;
  for (const MhlHash& h : manifest.hashes) {
    latest_.insert_or_assign(hashKey(h.format, h.path), h);
    if (h.action != MhlAction::Failed) good_.insert_or_assign(hashKey(h.format, h.path), h);
    paths.insert(h.path);
    ++(h.action == MhlAction::Failed     ? generation.failed
       : h.action == MhlAction::Verified ? generation.verified
                                         : generation.original);
  }
  generation.files = paths.size();
  generationList_.push_back(std::move(generation));
}

std::vector<MhlHash> MhlHistory::goodRecords() const {
  std::vector<MhlHash> records;
  for (const auto& [key, h] : good_) records.push_back(h);
  std::sort(records.begin(), records.end(), [](const MhlHash& a, const MhlHash& b) {
    return std::tie(a.path, a.format) < std::tie(b.path, b.format);
  });
  return records;
}

std::vector<std::string> MhlHistory::recordedPaths() const {
  std::set<std::string> paths;
  for (const auto& [key, h] : latest_) paths.insert(h.path);
  return {paths.begin(), paths.end()};
}

std::optional<MhlHash> MhlHistory::latest(std::string_view path, std::string_view format) const {
  auto it = latest_.find(hashKey(format, path));
  if (it == latest_.end()) return std::nullopt;
  return it->second;
}

std::optional<std::string> MhlHistory::addGeneration(const MhlCreator& creator,
                                                     std::string_view name,
                                                     const std::vector<std::string>& ignorePatterns,
                                                     const std::vector<MhlHash>& hashes,
                                                     std::string& error, std::string_view process,
                                                     const MhlDirectoryHashes& directoryHashes,
                                                     const std::vector<MhlReference>& references) {
  if (!loaded_) {
    error = "the ASC MHL history did not load; nothing is written into it";
    return std::nullopt;
  }
  const bool plainName = !name.empty() && name.size() <= 160 && name != "." && name != ".." &&
                         utf8::isValid(name) && std::none_of(name.begin(), name.end(), [](char c) {
                           return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
                         });
  if (!plainName) {
    error = "not a name for a manifest: \"" + shown(name) + "\"";
    return std::nullopt;
  }
  MhlManifest manifest{creator, std::string(process), ignorePatterns,
                       hashes,  directoryHashes,      references};
  std::optional<std::string> bytes = writeMhlManifest(manifest, error);
  if (!bytes) return std::nullopt;
  char number[16];
  std::snprintf(number, sizeof number, "%04d", generations() + 1);
  const std::string file = std::string(number) + "_" + std::string(name) + "_" +
                           fileNameDate(creator.creationDate) + ".mhl";
  std::vector<MhlChainEntry> chain = chain_;
  chain.push_back({generations() + 1, file, mhlC4Id(*bytes)});
  std::optional<std::string> chainBytes = writeMhlChain(chain, error);
  if (!chainBytes) return std::nullopt;
  // What is indexed is what a later load reads back.
  MhlManifest written;
  if (!parseMhlManifest(*bytes, written, error)) return std::nullopt;

  const std::string where = trackedFolder_ + "/" + std::string(kFolderName);
  // The folder that was read; one missing then is opened now, and kept.
  if (!folder_) {
    UniqueFd tracked(retryOnEintr(
        [&] { return ::open(trackedFolder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!tracked) {
      error = "cannot open " + trackedFolder_ + ": " + errnoText(errno);
      return std::nullopt;
    }
    folder_ = held(std::move(tracked));
  }
  if (::mkdirat(*folder_, std::string(kFolderName).c_str(), 0777) != 0 && errno != EEXIST) {
    error = "cannot create " + where + ": " + errnoText(errno);
    return std::nullopt;
  }
  std::string why;
  UniqueFd dir = openHistoryFolder(*folder_, where, why);
  if (!dir) {
    error = why.empty() ? "cannot open " + where + ": " + errnoText(errno) : why;
    return std::nullopt;
  }
  // Someone else may have added a generation since the history was read: never
  // write a chain that would drop theirs.
  const std::string chainName(kChainName);
  const Result<std::string, ReadError> current =
      readRegularFileAt(dir.get(), chainName, kMaxChainBytes, false);
  const bool unchanged = chainBytes_ ? current && *current == *chainBytes_
                                     : !current && current.error().kind == ReadFailure::Missing;
  if (!unchanged) {
    error = where + "/" + chainName + " changed since the history was read; nothing is written";
    return std::nullopt;
  }
  if (Result<void> written =
          writeFileAtomicallyAt(dir.get(), file, *bytes, AtomicReplace::NoReplace, 0666);
      !written) {
    error = written.error().message();
    return std::nullopt;
  }
  if (Result<void> written =
          writeFileAtomicallyAt(dir.get(), chainName, *chainBytes, AtomicReplace::Replace, 0666);
      !written) {
    ::unlinkat(dir.get(), file.c_str(), 0);  // ours, and listed nowhere
    error = written.error().message();
    return std::nullopt;
  }
  index(chain.back(), written);
  chain_ = std::move(chain);
  chainBytes_ = std::move(chainBytes);
  return where + "/" + file;
}

}  // namespace kd
