// The hash lists a card (a shuttle drive, a RAID) already keeps: its ascmhl
// folder at the top and those of folders inside. An offload checks every file
// against them, copies each of them byte for byte into every destination and
// continues it there with a generation of its own, so that the chain of
// custody goes on from the card. Not part of the library's interface.
//
// Ownership: a CardHistories object holds what it read of the card (no
// descriptor between calls). Not thread-safe; the offload's own thread only.
// The card is only ever read.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "files/mhl/MhlDirectoryHash.h"
#include "files/mhl/MhlHistory.h"
#include "files/offload/OffloadInternal.h"

namespace kd::offload {

// What the check of one card file against the card's hash list found.
struct HistoryCheck {
  enum class Outcome : unsigned char {
    Untracked,  // no hash list of the card covers it
    New,        // covered, but never recorded as good
    Match,      // equal to its newest good record
    Mismatch,   // differs from it
    Unchecked,  // could not be compared (read failed, a kind kd cannot compute)
  };
  Outcome outcome = Outcome::Untracked;
  std::string kind;      // the kind compared
  std::string recorded;  // the digest recorded in `kind`
  std::string found;     // the card file's digest in `kind`
  std::string reason;    // for Mismatch and Unchecked
};

// One generation to add to the hash lists of one destination.
struct HistoryGenerations {
  int destination = -1;       // the card's folder in the destination, open
  std::string folder;         // its path
  MhlHistory* own = nullptr;  // its hash list as loaded before the run
  // What the run adds (paths relative to the card, the run's kind), every
  // file of the card, and its folders as the destination holds them.
  const std::vector<MhlHash>* entries = nullptr;
  const std::vector<std::string>* paths = nullptr;
  const std::vector<MhlFolder>* folders = nullptr;
  MhlCreator creator;
  std::string name;  // of the card, for the manifests' names
  std::vector<std::string> patterns;
  std::string format;  // the run's kind
};

class CardHistories {
 public:
  // Reads the hash lists that `tree` left out (every folder named ascmhl
  // that holds a chain or manifests). False with `error` when one cannot be
  // read or changed while it was read; nothing else is to be trusted then.
  bool load(const std::string& card, const CardTree& tree, std::string& error);

  bool empty() const { return histories_.empty(); }
  // The folders that keep a hash list, relative to the card, sorted.
  std::vector<std::string> roots() const;

  // Checks a card file against the hash list that covers it: with the run's
  // own digest when the list recorded that kind, else by `readAgain` in a
  // kind it recorded (the card file read once more).
  HistoryCheck check(const std::string& path, std::uint64_t size, const std::string& runKind,
                     const std::string& runDigest,
                     const std::function<std::optional<std::string>(
                         const KdFileManager::CopyDigest&, std::string& error)>& readAgain) const;

  // Recorded in a hash list of the card, not on the card now (relative to
  // the card); what `tree` left out does not count.
  std::vector<std::string> missing(const CardTree& tree) const;

  // Why the destination's card folder (open as `destination`, `folder` its
  // path) cannot take the card's hash lists: it keeps one of its own where
  // the card keeps one, and it is not the card's (nor the card's continued).
  // Nothing when it can.
  std::optional<std::string> destinationProblem(int destination, const std::string& folder) const;

  // Copies the card's hash lists into the destination (each manifest and
  // chain byte for byte, read back and compared), then adds a generation to
  // each, the folders inside first, each parent's generation referring to
  // its children's. Problems go to `problems` as (path, reason). Returns the
  // path of the generation added at the top.
  std::optional<std::string> write(
      const HistoryGenerations& in,
      std::vector<std::pair<std::string, std::string>>& problems) const;

 private:
  struct History {
    std::string root;  // relative to the card; "" for the card itself
    MhlHistory history;
    std::string chainBytes;  // the chain file as read
    // Newest good record of each path (relative to root), per kind.
    std::map<std::string, std::vector<MhlHash>, std::less<>> good;
  };
  // The deepest hash list whose folder holds `path`, and the path in it.
  const History* covering(const std::string& path, std::string* relative) const;
  // Copies one of the card's hash lists into the destination; returns its
  // tracked folder there, open, or none with `error`.
  UniqueFd install(const History& h, int destination, const std::string& folder,
                   std::string& error) const;

  std::string card_;
  std::vector<History> histories_;  // sorted by root
};

}  // namespace kd::offload
