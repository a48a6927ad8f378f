// Directory hashes of an ASC MHL generation: for each folder of the tracked
// folder, and for the tracked folder itself (the root hash), a content hash
// and a structure hash, computed from its files' digests the way the
// standard's tools compute them, so that any of them can check a folder
// against them later.
//
// - A folder's content hash is the digest of the concatenated digest bytes of
//   its files and of its subfolders' content hashes, the digests sorted by
//   their text.
// - Its structure hash is the digest of the concatenated bytes of one digest
//   per child, sorted by their text: of the child's name (UTF-8, as written)
//   followed by the bytes of the file's digest or the subfolder's structure
//   hash.
// - An empty folder's hashes are the digest of nothing.
//
// The digests are the library's own (xxh64, xxh3, xxh128, md5, sha1) and C4
// IDs. Stateless functions; callable from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/mhl/MhlHistory.h"

namespace kd {

// A folder of the tracked folder, for its directory hash.
struct MhlFolder {
  std::string path;  // relative, '/'-separated; empty for the tracked folder itself
  std::optional<std::chrono::system_clock::time_point> modified;
  // A folder that keeps a history of its own: its hashes are that history's
  // root hash, as its newest generation gives them (nothing below it is
  // looked at). None, or another format: not known.
  std::optional<MhlDirectoryDigest> given = std::nullopt;
};

// The directory hashes in `format` of the folders given and of every folder
// above a file, and the root hash. Each distinct path in `files` is a file of
// the tracked folder; its digest is that of its entry in `format`. A file
// with no such entry (only other formats, or an empty digest) is one whose
// content is not known: no folder above it gets a hash, nor does the root.
// Folders come children first, otherwise in path order. Empty when `format`
// is not one a manifest can hold.
MhlDirectoryHashes mhlDirectoryHashes(const std::vector<MhlHash>& files,
                                      const std::vector<MhlFolder>& folders,
                                      std::string_view format);
// The same in each of `formats`: a folder gets a digest in every format in
// which its content is known.
MhlDirectoryHashes mhlDirectoryHashes(const std::vector<MhlHash>& files,
                                      const std::vector<MhlFolder>& folders,
                                      const std::vector<std::string>& formats);

// The directory hashes of a generation that covers `paths` (every file the
// folder holds after the run): a file's digest is its entry in `entries`
// (what the run found), else the history's latest record that is not
// "failed" (a file the run left as it was recorded). A file with neither is
// not known.
MhlDirectoryHashes mhlGenerationDirectoryHashes(const std::vector<std::string>& paths,
                                                const std::vector<MhlHash>& entries,
                                                const MhlHistory& history,
                                                const std::vector<MhlFolder>& folders,
                                                std::string_view format);
// The same in each of `formats`.
MhlDirectoryHashes mhlGenerationDirectoryHashes(const std::vector<std::string>& paths,
                                                const std::vector<MhlHash>& entries,
                                                const MhlHistory& history,
                                                const std::vector<MhlFolder>& folders,
                                                const std::vector<std::string>& formats);

}  // namespace kd
