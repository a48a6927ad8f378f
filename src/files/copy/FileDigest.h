// Digesting a whole open file: the one read loop behind the hashes, kd hash,
// the offload's checks and the copy's report of a copy that differs.
//
// Plain functions without state of their own; callable from any thread, one
// thread per descriptor. Public: kd hash reads through it as any caller may.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "../../KdExport.h"
#include "../KdFileManager.h"

namespace kd::copy {

// How the file is read.
enum class Reading {
  // With positioned reads from its first byte, leaving the descriptor's own
  // offset alone: a regular file.
  Positioned,
  // With read() from the descriptor's current position, ahead of the
  // digesting on a thread of the reader's own where the file allows it
  // (kd::ReadAhead): a regular file, a pipe, standard input.
  Ahead,
};

// Why a file's digests were not had.
struct KD_EXPORT DigestFailure {
  enum class What {
    Unavailable,  // a kind is not one the library computes (`kind` names it)
    NoMemory,     // no memory for the reading
    Read,         // a read failed (`error`: its errno), or a digest could not be fed
    Stopped,      // `read` said to stop
    Final,        // a digest could not be finished
  };
  What what = What::Read;
  int error = 0;
  std::string kind;
  // The failure in words, for the copy's and the offload's messages.
  std::string text() const;
};

// The digests of the file open at `fd`, to its end, in every kind of `kinds`
// from one read. `read` (when given) hears of every read's length and may
// stop the reading by returning false. One text per kind, in their order;
// nothing, with `failure` set, when a digest is not had.
KD_EXPORT std::optional<std::vector<std::string>> digestsOfFile(
    int fd, Reading reading, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, DigestFailure& failure);

// The same, positioned, with the failure in words in `error`.
KD_EXPORT std::optional<std::vector<std::string>> digestsOfOpenFile(
    int fd, const std::vector<KdFileManager::CopyDigest>& kinds,
    const std::function<bool(std::uint64_t)>& read, std::string& error);
// The same in one kind.
KD_EXPORT std::optional<std::string> digestOfOpenFile(
    int fd, const KdFileManager::CopyDigest& kind, const std::function<bool(std::uint64_t)>& read,
    std::string& error);

}  // namespace kd::copy
