// The offload's parts shared between its source files: the card's tree and
// reading a file for its digest. Not part of the library's interface.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "files/KdFileManager.h"
#include "files/offload/Offload.h"

namespace kd::offload {

struct CardFile {
  std::string path;  // relative to the card, '/'-separated
  std::uint64_t size = 0;
  struct timespec modified {};
};

struct CardFolder {
  std::string path;  // relative to the card; empty for the card itself
  struct timespec modified {};
};

// The card as it was read: sorted by path. `error` is set when a part of it
// could not be read; nothing else is to be trusted then.
struct CardTree {
  std::vector<CardFile> files;
  std::vector<CardFolder> folders;
  std::vector<OffloadExclusion> excluded;
  // The folders (relative; empty for the card itself) whose "ascmhl" folder
  // was left out as a hash list, sorted.
  std::vector<std::string> histories;
  std::uint64_t bytes = 0;
  std::string error;
};

// Whether a hash list's ignore patterns leave out the entry at `path`
// (relative, '/'-separated): a pattern without a '/' names any part of the
// path (".DS_Store", "._*"), one ending in '/' a folder, and one with a '/'
// inside matches the whole path.
bool matchesIgnorePattern(const std::vector<std::string>& patterns, const std::string& path,
                          bool isFolder);

// Why an entry of the card is left out; empty when it is copied. With
// `skipHistory`, every "ascmhl" folder (the card's hash list at its top, and
// those that folders inside keep) is left out;
// `patterns` are the user's own, in the notation above.
std::string exclusionReason(const std::string& relative, const std::string& name, bool isFolder,
                            bool skipHistory, const std::vector<std::string>& patterns = {});

// Reads the card's tree without following links.
CardTree readCard(const std::string& card, bool skipHistory,
                  const std::vector<std::string>& patterns = {});

// The digest of a whole regular file, `path` taken in the open folder `folder`
// (AT_FDCWD: as given), its last part never followed. With `fromDevice`, the file is first flushed
// and its cached pages dropped, so what is read comes from the device, and
// dropped again after. `read` hears of every stretch read. Nothing with
// `error` set when the file cannot be opened or read.
std::optional<std::string> digestOfFile(int folder, const std::string& path,
                                        const KdFileManager::CopyDigest& digest, bool fromDevice,
                                        const std::function<void(std::uint64_t)>& read,
                                        std::string& error);
// The same in several kinds from one read: one digest text per kind, in
// their order.
std::optional<std::vector<std::string>> digestsOfFile(
    int folder, const std::string& path, const std::vector<KdFileManager::CopyDigest>& kinds,
    bool fromDevice, const std::function<void(std::uint64_t)>& read, std::string& error);

// Whether `path` or a folder above it is among `paths` (relative paths,
// '/'-separated).
bool within(const std::set<std::string>& paths, std::string path);

// Whether `path` is the folder `root` or below it ("" holds everything).
bool holds(const std::string& root, const std::string& path);
// `path` relative to `root`, which holds it.
std::string below(const std::string& root, const std::string& path);

}  // namespace kd::offload
