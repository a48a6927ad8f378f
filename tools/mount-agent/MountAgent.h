// The per-user mount agent: starts the helper once at login ("-setup") and
// once for every new mount, with the application folder as working directory.
//
// Ownership: the agent owns its mount monitor and the helper processes it
// starts (one at a time; later runs wait in a queue). Threads: single-threaded;
// run() blocks until the stop descriptor becomes readable.
#pragma once

#include <sys/types.h>

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/MountTable.h"

namespace kd::agent {

using kd::MountEntry;

struct Options {
  std::string helperPath;  // the helper executable
  std::string appDir;      // working directory of every helper run
  bool runSetup = true;    // run the helper with "-setup" at start
  bool verbose = false;    // report each run on standard error
};

// The entries of `now` whose ids are not in `before`, in table order.
std::vector<MountEntry> newMounts(const std::set<int>& before, const std::vector<MountEntry>& now);

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
};

}  // namespace kd::agent
