// Offloading a camera card: every file of the card copied to several
// destinations in one read of the card, each copy verified, optionally read
// again from the destination's device, recorded in each destination's
// hash list (its ascmhl folder), and resumable.
//
// `offloadCard` runs on the caller's thread and blocks until the end; the copy
// engine underneath uses threads of its own. The progress functions are
// called from those threads as well as the caller's, one call at a time per
// function is not promised: they must be thread-safe.
#pragma once

#include "../../KdExport.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "../HashKinds.h"

namespace kd {

struct OffloadOptions {
  std::string card;                       // the card's folder
  std::vector<std::string> destinations;  // existing folders; each gets <name>/
  // The digest kinds ("xxh64", "xxh64,md5"), all from one read of each card
  // file: the first verifies the copies, every one is recorded.
  HashKinds hash = "xxh64";
  bool reverify = false;  // read each copy again from its device
  // Read every card file a second time, from the device, once the copies
  // verified: a card or reader that gave bad bytes once gives other ones then.
  bool sourceVerify = false;
  // Go on with a destination that has less free space than the card needs.
  bool force = false;
  bool mhl = true;  // keep a hash list in each destination
  // Leave the card's own hash lists (its ascmhl folders) out: nothing is
  // checked against them and each destination starts a hash list of its own.
  bool ignoreSourceHistory = false;
  std::string name;  // default: the card folder's name
  // Patterns of what else to leave out, in the hash lists' notation (a name
  // such as "*.tmp" or "PRIVATE/", or a path with a '/' inside); they are
  // recorded as the hash list's ignore patterns.
  std::vector<std::string> exclude;
  std::string tool = "kd", toolVersion;  // the creator named in the hash list
  // Write a transfer report (HTML and CSV) beside the hash list in each
  // destination; `layout` says in it how the card was recognised.
  bool report = true;
  std::string layout;
  // Set from anywhere (a signal handler) to stop after the current stretch.
  const std::atomic<bool>* stop = nullptr;
};

// A problem with one file at one destination (or on the card).
struct OffloadFailure {
  std::string path;  // the destination's file, or the card's
  std::string reason;
  std::optional<std::string> sourceDigest;
  std::optional<std::string> destinationDigest;
};

// What became of one file of the card at one destination.
enum class OffloadFileState : unsigned char {
  NotCopied,     // the run stopped or gave the destination up before it
  Copied,        // copied and verified
  AlreadyThere,  // there before, and found to be the card's file
  Failed,        // named in the destination's failures
};

struct OffloadDestination {
  std::string folder;  // <destination>/<name>
  std::uint64_t filesCopied = 0;
  std::uint64_t filesSkipped = 0;     // already there, same size and digest
  std::uint64_t filesReverified = 0;  // read again from the device and equal
  std::uint64_t bytesCopied = 0;
  std::vector<OffloadFailure> failures;
  // Why the destination was given up (full, gone, unusable); empty while it
  // took part to the end. Files not copied after that count in `filesMissing`.
  std::string lost;
  std::uint64_t filesMissing = 0;
  std::optional<std::string> manifest;  // the hash list written by this run
  // Copies that could not take all of their card file's extended attributes
  // (a destination whose file system holds none); the first such copy.
  std::uint64_t filesWithAttributesNotKept = 0;
  std::string attributesNotKeptExample;
  // The transfer report written by this run, as HTML and as CSV.
  std::optional<std::string> reportHtml, reportCsv;
  // Each card file's state here, in the order of OffloadReport::cardFiles.
  std::vector<OffloadFileState> states;
  // Every file of the card is there and verified.
  bool good() const { return failures.empty() && lost.empty() && filesMissing == 0; }
};

struct OffloadExclusion {
  std::string path;  // relative to the card
  std::string reason;
};

// One file of the card, as the run read it.
struct OffloadCardFile {
  std::string path;  // relative to the card
  std::uint64_t size = 0;
  std::chrono::system_clock::time_point modified;
  std::optional<std::string> digest;  // the card file's, once it was read
  // Its digests in the report's further kinds (hash.others()), in their
  // order, once it was read.
  std::vector<std::string> otherDigests = {};
};

struct KD_EXPORT OffloadReport {
  std::string card;
  std::string name;
  HashKinds hash;
  std::string layout;  // as the options gave it
  std::chrono::system_clock::time_point started, ended;
  // Set when the run could not start or stopped early (the card could not be
  // read, a stop was asked); empty when it ran to its end.
  std::string error;
  std::uint64_t files = 0;  // regular files on the card, excluded ones left out
  std::uint64_t bytes = 0;  // their size in all
  std::uint64_t bytesRead = 0;
  std::chrono::duration<double> elapsed{};
  std::vector<OffloadExclusion> excluded;
  std::vector<OffloadCardFile> cardFiles;  // sorted by path
  // The card's own hash lists that the run checked every file against and
  // continued in each destination: the folders that keep them (relative to
  // the card, "" for the card itself).
  std::vector<std::string> cardHistories;
  std::uint64_t filesMatchingHistory = 0;    // card files equal to their record
  std::vector<std::string> missingFromCard;  // recorded there, not on the card
  std::vector<std::string> newOnCard;        // on the card, never recorded there
  bool sourceVerify = false;                 // as the options asked
  std::uint64_t filesReadTwice = 0;          // card files read again and equal
  // Said before the run began, without stopping it (two destinations on one
  // drive are one copy).
  std::vector<std::string> warnings;
  std::vector<OffloadDestination> destinations;
  // Ran to its end and every destination holds every file, verified.
  bool allGood() const;
};

// Progress of a run. The calls come from the run's own threads as well as
// the caller's, one at a time, never two at once.
struct OffloadProgress {
  // A file of the card is being read: its path relative to the card.
  std::function<void(const std::string& path, std::uint64_t size)> fileStarted;
  // Bytes of the card read so far, of `total`.
  std::function<void(std::uint64_t done, std::uint64_t total)> bytes;
};

// What is wrong with the options before anything is touched (an unknown or
// repeated hash, a hash the hash list cannot hold, no destination, a bad
// name); nothing when they are usable. `offloadCard` refuses the same with
// `error` set.
KD_EXPORT std::optional<std::string> offloadOptionsProblem(const OffloadOptions& options);

KD_EXPORT OffloadReport offloadCard(const OffloadOptions& options,
                                    const OffloadProgress& progress = {});

// The name a file of the card has at a destination while it is being copied,
// in the same folder: ".<name>.kdpart".
KD_EXPORT std::string offloadPartName(const std::string& fileName);

// What an offload of a card copies, counted as the offload counts it: what
// systems keep on a card and the card's own hash lists (ascmhl) left out.
struct OffloadCardContents {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::string error;  // set when the card cannot be read
};
// Reads the card's folders (nothing is opened for reading, nothing changes).
KD_EXPORT OffloadCardContents offloadCardContents(const std::string& card);

}  // namespace kd
