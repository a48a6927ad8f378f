// Progress of long work on standard error: on a terminal a bar redrawn in
// place with the current file's name; otherwise a plain line every few
// seconds, so that a log of the run shows it is alive.
#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "common/ThreadAnnotations.h"
#include "log/KdLog.h"

#include "files/offload/Offload.h"

namespace kd::tool {

// A size in the units kd prints everywhere.
std::string size(std::uint64_t bytes);
// Seconds as M:SS or H:MM:SS.
std::string clock(double seconds);

// Makes Ctrl-C and SIGTERM set the flag returned (a second one ends kd at
// once), for long work that stops cleanly between stretches.
const std::atomic<bool>* stopOnInterrupt();

// Reports come from worker threads as well as the main one; thread-safe.
// `label` starts the plain lines ("kd offload").
class Progress {
 public:
  Progress(bool terminal, std::string label);

  void file(const std::string& path);
  void bytes(std::uint64_t done, std::uint64_t total);
  void end();

 private:
  using Clock = std::chrono::steady_clock;

  void draw() KD_REQUIRES(mu_);

  const bool terminal_;
  const std::string label_;
  const Clock::time_point start_;
  Mutex mu_;
  Clock::time_point lastLine_ KD_GUARDED_BY(mu_){};
  std::string file_ KD_GUARDED_BY(mu_);
  std::uint64_t done_ KD_GUARDED_BY(mu_) = 0;
  std::uint64_t total_ KD_GUARDED_BY(mu_) = 0;
  bool drawn_ KD_GUARDED_BY(mu_) = false;
  bool ended_ KD_GUARDED_BY(mu_) = false;
};

// The callbacks of an offload or a check that draw on `progress`.
OffloadProgress offloadProgress(const std::shared_ptr<Progress>& progress);

// Runs the long work of `label` ("kd offload") with a progress line on
// standard error; then says its error there, prints its summary (standard
// output), and ends kd with status 1 unless the report is all good and the
// summary was written. `work` takes the progress callbacks and returns a
// report with `error` and `allGood()`.
template <class Work, class Print>
void runLongCommand(const std::string& label, Work&& work, Print&& print) {
  auto progress = std::make_shared<Progress>(::isatty(STDERR_FILENO) == 1, label);
  const auto report = work(offloadProgress(progress));
  progress->end();
  if (!report.error.empty()) std::fprintf(stderr, "%s: %s\n", label.c_str(), report.error.c_str());
  print(report);
  KdLog::finishWriting();
  const bool written = finishData();
  if (!report.allGood() || !written) exitWith(1);
}

}  // namespace kd::tool
