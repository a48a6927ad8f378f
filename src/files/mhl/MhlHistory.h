// The history of a tracked folder on disk (see MhlManifest.h for its files):
// loading it, its latest records, and adding a generation.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../../KdExport.h"
#include "MhlManifest.h"

namespace kd {

// The ascmhl/ folder of a tracked folder (DEST/<NAME>/ascmhl).
//
// Ownership: the object holds what it read and, when the tracked folder was
// there, a descriptor of that folder (shared by copies, closed with the last
// one): a generation is written into the folder that was read, whatever its
// path names by then. Not thread-safe; one owner. Nothing is written into a
// history that did not load.
class KD_EXPORT MhlHistory {
 public:
  // The folder's name, and the chain file's name in it.
  static constexpr std::string_view kFolderName = "ascmhl";
  static constexpr std::string_view kChainName = "ascmhl_chain.xml";

  // Reads ascmhl/ascmhl_chain.xml and every manifest it lists. A missing
  // tracked folder or ascmhl folder is an empty history (true). A damaged chain
  // or manifest, a manifest missing or whose C4 ID does not match the chain, a
  // link where a folder or file should be: false with a reason, and `out` is
  // an unloaded history. Nothing is changed on disk.
  static bool load(const std::string& trackedFolder, MhlHistory& out, std::string& error);
  // The same below an open tracked folder (`shownAs` names it in messages).
  // Nothing is reached by path: a folder below it that is a link is refused.
  static bool loadAt(int trackedFolder, const std::string& shownAs, MhlHistory& out,
                     std::string& error);

  // Whether load() succeeded for this object.
  bool loaded() const { return loaded_; }
  // The number of generations (0 for an empty history).
  int generations() const { return static_cast<int>(chain_.size()); }
  // The chain as loaded and extended: the manifests' names and C4 IDs.
  const std::vector<MhlChainEntry>& chain() const { return chain_; }
  // The chain file's bytes as read (or as last written); none when there was
  // no chain file.
  const std::optional<std::string>& chainBytes() const { return chainBytes_; }
  // The latest recorded hash of `path` in `format` (from the newest generation
  // that lists it), if any. Its action may be "failed": check it before
  // trusting the digest.
  std::optional<MhlHash> latest(std::string_view path, std::string_view format) const;
  // For every path and format, the newest record that is not "failed": what
  // the file was when it was last found good. Sorted by path, then format.
  std::vector<MhlHash> goodRecords() const;
  // Every path a generation recorded, sorted.
  std::vector<std::string> recordedPaths() const;
  // Each generation's creator, process, ignore patterns and counts, oldest
  // first.
  const std::vector<MhlGeneration>& generationList() const { return generationList_; }

  // Writes the next generation's manifest "NNNN_<name>_<YYYY-MM-DD_HHMMSSZ>.mhl"
  // (the process given, the ignore patterns, hashes and directory hashes
  // given), never replacing a file, and then the extended chain file, replaced
  // atomically, below the tracked folder that was loaded. A tracked folder that
  // was missing when loaded must exist by now; the ascmhl folder is made when
  // missing. Refused when the
  // history did not load, or when the chain on disk changed since it was
  // loaded. Returns the manifest's path, or nullopt with `error`.
  std::optional<std::string> addGeneration(const MhlCreator& creator, std::string_view name,
                                           const std::vector<std::string>& ignorePatterns,
                                           const std::vector<MhlHash>& hashes, std::string& error,
                                           std::string_view process = "transfer",
                                           const MhlDirectoryHashes& directoryHashes = {},
                                           const std::vector<MhlReference>& references = {});

 private:
  void index(const MhlChainEntry& entry, const MhlManifest& manifest);

  bool loaded_ = false;
  std::string trackedFolder_;
  std::shared_ptr<const int> folder_;      // the tracked folder, open; none when it was missing
  std::optional<std::string> chainBytes_;  // as read; none when there was no chain file
  std::vector<MhlChainEntry> chain_;
  std::map<std::string, MhlHash, std::less<>> latest_;  // key: format, '\0', path
  std::map<std::string, MhlHash, std::less<>> good_;    // the same, "failed" left out
  std::vector<MhlGeneration> generationList_;
};

}  // namespace kd
