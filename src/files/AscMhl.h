// The ASC MHL history of a tracked folder: the `ascmhl/` folder beside the
// media, holding one manifest per generation ("NNNN_<name>_<date>.mhl") and the
// chain file "ascmhl_chain.xml" that lists the manifests in order with the C4
// ID of each. The offload reads it to resume (the latest recorded hash of each
// file) and adds a generation after each offload.
//
// The readers take hostile input (a destination may hold a damaged or
// malicious folder): they are iterative with bounded depth and sizes, refuse
// document types (so no entity is ever defined or expanded) and never touch
// the network. Everything here is in the project's own small XML reader
// rather than a library, so the fuzz target covers all of it.
#pragma once

#include "../KdExport.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd {

// One file's hash as recorded in a generation.
struct MhlHash {
  std::string path;  // relative to the tracked folder, '/'-separated, as written in <path>
  // The file's size; a manifest may leave it out (some writers do for empty
  // files), and then nothing is known of it.
  std::optional<std::uint64_t> size;
  std::optional<std::chrono::system_clock::time_point> modified;  // lastmodificationdate
  std::string format;  // "xxh64", "xxh3", "xxh128", "md5", "sha1", "c4"
  std::string digest;  // lowercase hex (c4: its own "c4..." text)
  std::string action;  // "original", "verified" or "failed"
  std::optional<std::chrono::system_clock::time_point> hashDate;  // may be left out too

  bool operator==(const MhlHash&) const = default;
};

// Who wrote a generation, and when.
struct MhlCreator {
  std::chrono::system_clock::time_point creationDate;
  std::string hostname, tool, toolVersion;

  bool operator==(const MhlCreator&) const = default;
};

// The hash formats a manifest can hold: xxh64, xxh3, xxh128, md5, sha1, c4.
KD_EXPORT bool isMhlHashFormat(std::string_view format);

// The C4 ID of `bytes`: "c4" and the SHA-512 digest as a base58 number of 88
// digits.
KD_EXPORT std::string mhlC4Id(std::string_view bytes);

// A folder's hashes in one format: the content hash (of its files' and
// folders' content hashes) and the structure hash (of their names with their
// hashes). A manifest may give one without the other; the missing one is
// empty.
struct MhlDirectoryDigest {
  std::string format;     // as MhlHash::format
  std::string content;    // lowercase hex (c4: "c4..."), or empty
  std::string structure;  // the same

  bool operator==(const MhlDirectoryDigest&) const = default;
};

// One folder's directory hash (<directoryhash>).
struct MhlDirectoryHash {
  std::string path;  // relative to the tracked folder, '/'-separated
  std::optional<std::chrono::system_clock::time_point> modified;  // lastmodificationdate
  std::vector<MhlDirectoryDigest> digests;  // one per format, in the order a manifest holds them

  bool operator==(const MhlDirectoryHash&) const = default;
};

// The directory hashes of a generation and the hash of the tracked folder
// itself (<roothash>, which has no path); empty when there are none.
struct MhlDirectoryHashes {
  std::vector<MhlDirectoryHash> directories;
  std::vector<MhlDirectoryDigest> root;

  bool operator==(const MhlDirectoryHashes&) const = default;
};

// One manifest (one generation's .mhl file), as far as it is read: creator,
// process, ignore patterns, file hashes, directory and root hashes.
// Everything else the schema allows (previous paths, authors, metadata,
// references) is accepted and skipped, and so is a directory hash whose path
// is not relative or whose digest is malformed (they are never relied on).
struct MhlManifest {
  MhlCreator creator;
  std::string process;  // "in-place", "transfer" or "flatten"
  std::vector<std::string> ignorePatterns;
  std::vector<MhlHash> hashes;  // one entry per file and format, in the file's order
  MhlDirectoryHashes directoryHashes;
};

// One entry of the chain file.
struct MhlChainEntry {
  int sequence = 0;  // from 1
  std::string file;  // the manifest's file name in the ascmhl folder
  std::string c4;    // the C4 ID of the manifest's bytes

  bool operator==(const MhlChainEntry&) const = default;
};

// What one generation of a history says of itself, for listing it.
struct MhlGeneration {
  MhlChainEntry entry;
  MhlCreator creator;
  std::string process;
  std::vector<std::string> ignorePatterns;
  std::size_t files = 0;                               // distinct paths
  std::size_t original = 0, verified = 0, failed = 0;  // hashes by action
};

// The readers: true with what was read, or false with a reason. Stateless;
// callable from any thread.
KD_EXPORT bool parseMhlManifest(std::string_view bytes, MhlManifest& out, std::string& error);
KD_EXPORT bool parseMhlChain(std::string_view bytes, std::vector<MhlChainEntry>& out,
                             std::string& error);
// The writers: the whole file, or nullopt with a reason (text XML 1.0 cannot
// carry, a path that is not relative, an unknown format or a malformed digest,
// a file listed twice with one format).
KD_EXPORT std::optional<std::string> writeMhlManifest(const MhlManifest& manifest,
                                                      std::string& error);
KD_EXPORT std::optional<std::string> writeMhlChain(const std::vector<MhlChainEntry>& chain,
                                                   std::string& error);

// The ascmhl/ folder of a tracked folder (DEST/<NAME>/ascmhl).
//
// Ownership: the object holds what it read, no descriptor between calls. Not
// thread-safe; one owner. Nothing is written into a history that did not load.
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

  // Whether load() succeeded for this object.
  bool loaded() const { return loaded_; }
  // The number of generations (0 for an empty history).
  int generations() const { return static_cast<int>(chain_.size()); }
  // The chain as loaded and extended: the manifests' names and C4 IDs.
  const std::vector<MhlChainEntry>& chain() const { return chain_; }
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
  // given), never replacing
  // a file, and then the extended chain file, replaced atomically. The tracked
  // folder must exist; the ascmhl folder is made when missing. Refused when the
  // history did not load, or when the chain on disk changed since it was
  // loaded. Returns the manifest's path, or nullopt with `error`.
  std::optional<std::string> addGeneration(const MhlCreator& creator, std::string_view name,
                                           const std::vector<std::string>& ignorePatterns,
                                           const std::vector<MhlHash>& hashes, std::string& error,
                                           std::string_view process = "transfer",
                                           const MhlDirectoryHashes& directoryHashes = {});

 private:
  void index(const MhlChainEntry& entry, const MhlManifest& manifest);

  bool loaded_ = false;
  std::string trackedFolder_;
  std::optional<std::string> chainBytes_;  // as read; none when there was no chain file
  std::vector<MhlChainEntry> chain_;
  std::map<std::string, MhlHash, std::less<>> latest_;  // key: format, '\0', path
  std::map<std::string, MhlHash, std::less<>> good_;    // the same, "failed" left out
  std::vector<MhlGeneration> generationList_;
};

}  // namespace kd
