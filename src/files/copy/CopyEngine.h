// The verified-copy engine's parts that are not the library's interface.
//
// Plain functions and values; see each for its threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "files/KdFileManager.h"

namespace kd::copy {

// For tests: called on a destination's stage after each of its writes and
// before that stretch is read back, with the destination's descriptor and the
// stretch; what it does to the file is what the read-back finds. Set it
// before a copy and clear it (nullptr) after, never while one runs.
using AfterWriteHook = void (*)(int fd, std::uint64_t offset, std::size_t length);
void setAfterWriteHookForTesting(AfterWriteHook hook);

// A copy's progress told straight to its caller, on the copying thread, with
// no delegate and no work queue between: `bytes` hears the running total at
// each progress step and once at the end; `stop`, read after every chunk,
// stops the copy once it is true.
struct DirectProgress {
  std::function<void(std::uint64_t)> bytes;
  const std::atomic<bool>* stop = nullptr;
};

// KdFileManager::copyFileToOpenDestinations with its progress told directly
// (the same checks, messages and outcome).
KdFileManager::CopyResult copyToOpenFiles(const std::string& source,
                                          std::vector<KdFileManager::OpenDestination> destinations,
                                          const KdFileManager::CopyDigest& digest,
                                          const std::vector<KdFileManager::CopyDigest>& moreDigests,
                                          bool keepPermissions, const DirectProgress& progress);

}  // namespace kd::copy
