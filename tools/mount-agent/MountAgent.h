// The per-user mount agent: starts the helper once at login ("-setup") and
// once for every new mount, with the application folder as working directory.
//
// Ownership: the agent owns its mount monitor and the helper processes it
// starts (one at a time; later runs wait in a queue). Threads: single-threaded;
// run() blocks until the stop descriptor becomes readable.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Mounts.h"

namespace kd::agent {

struct Options {
  std::string helperPath;  // the helper executable
  std::string appDir;      // working directory of every helper run
  bool runSetup = true;    // run the helper with "-setup" at start
  bool verbose = false;    // also report the mounts that start nothing
  // Start each run through this executable's "--in-scope" trampoline (empty:
  // run the helper directly, inside the agent's own control group).
  std::string trampoline;
  // Asked for every new removable volume: true when the desktop is set to
  // never start programs on media insertion; then no helper run starts.
  // Empty: never set.
  std::function<bool()> autorunNever;
};

// How the agent tells mounts apart. The kernel hands a freed mount id to the
// next mount at once, so an unmount quickly followed by another mount may
// reuse the id: the mount point, device and type set them apart, and for
// removable media the kernel's never-reused 64-bit mount id (Linux 6.8 and
// later; 0 elsewhere) tells a card remounted at the same place with the same
// device from the one before, even when both changes come in one reading.
using MountKey = std::tuple<int, dev_t, std::string, std::string, std::uint64_t>;
MountKey keyOf(const MountEntry& mount);

// The entries of `now` whose keys are not in `before`, in table order.
std::vector<MountEntry> newMounts(const std::set<MountKey>& before,
                                  const std::vector<MountEntry>& now);

// How a helper run ended, for the journal: "status N" or "signal NAME".
std::string describeEnd(int waitStatus);

class MountAgent {
 public:
  explicit MountAgent(Options options);
  MountAgent(const MountAgent&) = delete;
  MountAgent& operator=(const MountAgent&) = delete;

  // Watches the mount table until `stopFd` becomes readable (or fails). Returns
  // the process exit status: 0 after a stop, 1 when the table cannot be watched.
  int run(int stopFd);

 private:
  void enqueue(std::vector<std::string> args, const std::string& why);
  void startNextIfIdle();
  void reapIfDone(bool wait);

  Options options_;
  std::deque<std::pair<std::vector<std::string>, std::string>> queue_;
  pid_t running_ = -1;
  std::string runningWhy_;  // why the running helper was started
};

}  // namespace kd::agent
