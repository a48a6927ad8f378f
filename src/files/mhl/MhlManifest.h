// The ASC MHL history of a tracked folder: the `ascmhl/` folder beside the
// media, holding one manifest per generation ("NNNN_<name>_<date>.mhl") and the
// chain file "ascmhl_chain.xml" that lists the manifests in order with the C4
// ID of each. The offload reads it to resume (the latest recorded hash of each
// file) and adds a generation after each offload.
//
// The readers take hostile input (a destination may hold a damaged or
// malicious folder): they read through the project's one XML reader
// (common/XmlReader.h), iterative with bounded depth and sizes, refusing
// document types (so no entity is ever defined or expanded) and never
// touching the network.
#pragma once

#include "../../KdExport.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd {

// What a generation did with a file's hash, its "action": hashed for the
// first time ("original"), found again and equal ("verified"), or found
// different or unreadable ("failed"). None: the manifest gave no action.
enum class MhlAction { None, Original, Verified, Failed };

// The action's text in a manifest ("" for None), and the action a text
// names (nothing when it names none): the one place the two meet.
std::string_view mhlActionText(MhlAction action);
std::optional<MhlAction> mhlActionNamed(std::string_view text);

// One file's hash as recorded in a generation.
struct MhlHash {
  std::string path;  // relative to the tracked folder, '/'-separated, as written in <path>
  // The file's size; a manifest may leave it out (some writers do for empty
  // files), and then nothing is known of it.
  std::optional<std::uint64_t> size;
  std::optional<std::chrono::system_clock::time_point> modified;  // lastmodificationdate
  std::string format;  // "xxh64", "xxh3", "xxh128", "md5", "sha1", "c4"
  std::string digest;  // lowercase hex (c4: its own "c4..." text)
  MhlAction action = MhlAction::None;
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

// A generation's reference to a generation of a history kept by a folder
// inside (<hashlistreference>): that manifest's path relative to the tracked
// folder, and its C4 ID.
struct MhlReference {
  std::string path;
  std::string c4;

  bool operator==(const MhlReference&) const = default;
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
  std::vector<MhlReference> references;  // written; not read back (see above)
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

}  // namespace kd
