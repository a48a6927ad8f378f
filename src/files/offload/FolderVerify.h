// Checking a copy later, without the card: every file of a folder that keeps
// an ASC MHL history is read again from its device and compared with what the
// history recorded for it, and the outcome is added to the history as a
// generation of its own ("verified" or "failed" for each file read).
#pragma once

#include "../../KdExport.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Offload.h"

namespace kd {

struct FolderVerifyOptions {
  std::string folder;                    // the tracked folder (it holds ascmhl/)
  bool mhl = true;                       // add a generation with what was found
  std::string tool = "kd", toolVersion;  // the creator named in that generation
  // Set from anywhere (a signal handler) to stop after the current stretch;
  // a stopped check adds nothing to the history.
  const std::atomic<bool>* stop = nullptr;
};

// A file that is not what the history recorded, or that cannot be read.
struct FolderVerifyProblem {
  std::string path;  // relative to the folder
  std::string reason;
  std::optional<std::string> recorded, found;  // the digests, where known
};

struct FolderVerifyReport {
  std::string folder;
  std::string hash;  // the kind new and renamed files were digested with
  int generations = 0;
  std::uint64_t filesVerified = 0;  // read and equal to the record
  std::uint64_t bytesRead = 0;
  std::vector<FolderVerifyProblem> changed;  // differ, or cannot be read
  std::vector<std::string> missing;          // recorded, not there
  std::vector<std::string> added;            // there, never recorded
  // A recorded file that is gone and a new one with its digest: (recorded
  // path, found path). Listed here only, not as missing and added.
  std::vector<std::pair<std::string, std::string>> renamed;
  std::vector<OffloadExclusion> excluded;
  std::optional<std::string> manifest;  // the generation added
  std::string error;  // the folder or its history cannot be read, or the check stopped
  std::chrono::duration<double> elapsed{};
  // The folders inside that keep a hash list of their own, each checked with
  // it (paths in each relative to its folder), sorted by folder.
  std::vector<FolderVerifyReport> inside;

  // Every file here and in the folders inside is as recorded.
  KD_EXPORT bool allGood() const;
};

// Checks the folder against its history, and each folder inside that keeps a
// history of its own against that one. Never changes a file of the folder;
// writes only the new generations into the ascmhl folders (unless `mhl` is
// false), each folder's referring to those of the folders inside. Progress goes to `progress` as
// for an offload.
KD_EXPORT FolderVerifyReport verifyFolder(const FolderVerifyOptions& options,
                                          const OffloadProgress& progress = {});

}  // namespace kd
