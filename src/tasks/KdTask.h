// One child process: what to run, how its standard streams are connected, and
// its life from launch to reaping.
//
// Ownership: a KdTask is normally held through std::shared_ptr (`create`), so
// that a run, its time-out timer and a caller that asked for the handle can all
// reach it. The parent's ends of the pipes belong to the KdTask. A child is
// always reaped: by `waitUntilExit`/`isRunning`, by a background waiter
// (`reapInBackground`), or, when the last owner goes away first, by a detached
// waiter started from the destructor.
//
// Threads: set the task up and launch it from one thread. After launch,
// `isRunning`, `waitUntilExit`, `terminate`, `kill`, `terminationStatus`,
// `outcome` and `stopReading` may be called from any thread at once. Signals
// are sent under the same lock that records the reaping, so they never reach
// a recycled process id. The reading calls (`readAvailableData`, `readToEnd`)
// belong to one reading thread at a time.
#pragma once

#include "../KdExport.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "../common/UniqueFd.h"

class KD_EXPORT KdTask : public std::enable_shared_from_this<KdTask> {
 public:
  using Arguments = std::vector<std::string>;
  using Environment = std::map<std::string, std::string>;

  // Where a standard stream of the child goes.
  enum class Stdio {
    Inherit,     // the parent's own stream
    NullDevice,  // "/dev/null"
    Pipe,        // a new pipe; for input, one whose writing end is closed at
                 // launch so that the child reads end of file at once
  };
  enum class Stream { Output, Error };

  // How a child ended, as a value (the status number is derived from it).
  struct Outcome {
    enum class Kind {
      NotLaunched,
      Running,
      Exited,     // `value` is the exit code
      Signalled,  // `value` is the signal number
      Unknown,    // reaped by someone else (e.g. SIGCHLD ignored): no status
    };
    Kind kind = Kind::NotLaunched;
    int value = 0;
  };

  static std::shared_ptr<KdTask> create() { return std::make_shared<KdTask>(); }
  KdTask() = default;
  ~KdTask();
  KdTask(const KdTask&) = delete;
  KdTask& operator=(const KdTask&) = delete;

  // --- Set-up (before launch) -------------------------------------------------
  void setLaunchPath(std::string path);
  std::string launchPath() const;
  // The arguments after argv[0]; argv[0] is always the launch path.
  void setArguments(Arguments arguments);
  // None: the child inherits the parent's environment.
  void setEnvironment(std::optional<Environment> environment);
  void setStandardInput(Stdio how);
  void setStandardOutput(Stdio how);
  void setStandardError(Stdio how);

  // Starts the child. False when it could not be started (or was launched
  // before); `error` then receives the reason.
  bool launch(std::string* error = nullptr);

  // --- Life ---------------------------------------------------------------------
  // 0 before launch.
  pid_t processIdentifier() const;
  // True while launched and not yet ended; reaps the child once it has ended.
  bool isRunning();
  // Blocks until the child has ended and is reaped. Returns at once when it
  // was never launched.
  void waitUntilExit();
  // As above for at most `limit`; true when the child has ended.
  bool waitUntilExit(std::chrono::milliseconds limit);
  // Sends SIGTERM (terminate) or SIGKILL (kill) while the child runs.
  void terminate();
  void kill();
  // Waits for the child in a background thread so that it never stays a zombie;
  // its outcome then shows here when it ends.
  void reapInBackground();

  Outcome outcome();
  // The exit code, or the signal number when a signal ended the child; -1 while
  // it runs, before launch, or when the status was lost.
  int terminationStatus();

  // --- Captured streams -----------------------------------------------------------
  // The next chunk that arrives on a piped stream (blocking); empty at end of
  // file, after `stopReading`, or when the stream is not piped.
  std::string readAvailableData(Stream stream);
  // Reads every piped stream to its end. Both are drained at once, so a child
  // that fills one pipe while the other is still open never stalls. After
  // `stopReading`, takes what is already buffered and returns.
  void readToEnd(std::string* output, std::string* error);
  // Ends reading: a reader blocked in the calls above returns, and later reads
  // return at once. Safe from any thread, before or after launch.
  void stopReading();
  // Stops reading and closes every pipe end of ours. Call from the reading
  // thread (or when there is none).
  void closeStreams();

 private:
  bool reapLocked(int waitFlags);
  void wake();
  kd::UniqueFd& reader(Stream stream) { return stream == Stream::Output ? outReader_ : errReader_; }

  mutable std::mutex mutex_;
  // Set-up (guarded by mutex_).
  std::string launchPath_;
  Arguments arguments_;
  std::optional<Environment> environment_;
  Stdio stdin_ = Stdio::Inherit;
  Stdio stdout_ = Stdio::Inherit;
  Stdio stderr_ = Stdio::Inherit;
  // Life (guarded by mutex_).
  pid_t pid_ = 0;
  bool launched_ = false;
  bool reaped_ = false;
  bool backgroundWaiter_ = false;
  Outcome outcome_;
  // Reading: the readers belong to the reading thread; the wake pipe is made at
  // launch (under mutex_) and never changes afterwards.
  kd::UniqueFd outReader_;
  kd::UniqueFd errReader_;
  kd::UniqueFd wakeReader_;
  kd::UniqueFd wakeWriter_;
  std::atomic<bool> stopped_{false};
};
