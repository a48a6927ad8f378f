// Runs command-line tools: synchronously (wait, exit status, captured output as
// bytes or text, or start and leave running), with an optional time-out, and
// asynchronously with each chunk of output handed to a delegate.
//
// Results, not exceptions: a tool that cannot run gives false, -1, no data or
// "" and a log line. Nothing here throws.
//
// Data is raw bytes held in a std::string (binary-safe; it may hold NUL and
// invalid UTF-8). "No data" is std::nullopt, distinct from empty data.
//
// Ownership: the class forms (static) keep no state; each time-out run makes
// its own KdTaskEx and joins its timer before returning. A KdTaskEx for an
// asynchronous run is created with `create()` and held by std::shared_ptr: the
// run's detached thread holds it too, so it lives until that thread ends.
//
// Threads: class forms may be called from any thread and block only that
// thread. A time-out fires on its own timer thread, whatever the calling thread
// is doing (blocked in a pipe read included). The asynchronous delegate is
// called on the run's own thread, never on the caller's; the other instance
// operations may be called from any thread.
#pragma once

#include "../KdExport.h"

#include <any>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KdTask.h"

// The name of the chunk records of asynchronous runs.
inline constexpr char KdAsyncTaskDataNotification[] = "KdAsyncTaskDataNotification";

class KdTaskEx;

// One chunk of an asynchronous run's output; empty data marks the end.
// It has no sender and is handed straight to `asyncTaskReturnData`.
struct KD_EXPORT KdTaskDataNotification {
  std::string name = KdAsyncTaskDataNotification;
  std::string data;
};

class KD_EXPORT KdTaskEx : public std::enable_shared_from_this<KdTaskEx> {
 public:
  using Data = std::string;
  using Arguments = KdTask::Arguments;
  using Environment = KdTask::Environment;
  using TaskHandle = std::shared_ptr<KdTask>;
  // String encodings by the platform's numbers.
  using StringEncoding = unsigned long;
  static constexpr StringEncoding ASCIIStringEncoding = 1;
  static constexpr StringEncoding UTF8StringEncoding = 4;
  static constexpr StringEncoding ISOLatin1StringEncoding = 5;
  // The delegate operation of an asynchronous run: the chunk, the runner, and
  // the run's object (empty when none was given). An empty function is a
  // delegate that does not take the chunks.
  using AsyncDataHandler =
      std::function<void(const Data& bytes, KdTaskEx& runner, const std::any& object)>;

  // How long a child that got SIGTERM at its time-out (or at the end of an
  // asynchronous run) has before SIGKILL.
  static constexpr std::chrono::milliseconds kTerminationGrace{2000};

  static std::shared_ptr<KdTaskEx> create();
  ~KdTaskEx();
  KdTaskEx(const KdTaskEx&) = delete;
  KdTaskEx& operator=(const KdTaskEx&) = delete;

  // --- Synchronous class forms ------------------------------------------------
  // `task`, when given, receives the child's handle before launch (for example
  // to terminate it from another thread).
  //
  // The overloads taking `double timeout` are the time-out forms: whole
  // seconds by truncation, then SIGTERM, and SIGKILL after kTerminationGrace.
  // Pass time-outs as doubles (2.0) and encodings as the constants above; a
  // bare integer literal is ambiguous between the two and does not compile.

  // Runs the tool with output and error to the null device and waits for it.
  // True when it was started and has ended (whatever its status).
  static bool runTask(const std::string& path, const Arguments& arguments = {},
                      TaskHandle* task = nullptr);
  static bool runTask(const std::string& path, const Arguments& arguments, double timeout);

  // The tool's exit status (the signal number when a signal ended it); -1 when
  // it is not executable or could not be started.
  static std::int32_t terminationCodeFromTask(const std::string& path,
                                              const Arguments& arguments = {},
                                              TaskHandle* task = nullptr);
  static std::int32_t terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                              double timeout);

  // What the tool wrote: its output when there is any, else its error text,
  // else empty data. No data when it is not executable or could not be
  // started. Without logOutput its output goes to this process's own output;
  // without logError its error goes to the null device. The child is not
  // waited for (it is reaped in the background).
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments,
                                          TaskHandle* task,
                                          const std::optional<Environment>& environment = {},
                                          bool logOutput = true, bool logError = true);
  static std::optional<Data> dataFromTask(const std::string& path, const Arguments& arguments,
                                          double timeout, bool logOutput = true,
                                          bool logError = true);

  // How a run ended, for callers that need more than its data.
  struct RunReport {
    bool timedOut = false;    // the time-out ended the child
    KdTask::Outcome outcome;  // NotLaunched when the tool could not be started
  };
  // `dataFromTask` (with a time-out when one is given) that then waits for
  // the child to end, and reports how it ended.
  static std::optional<Data> dataFromTaskWithReport(const std::string& path,
                                                    const Arguments& arguments,
                                                    std::optional<double> timeout,
                                                    RunReport& report);

  // The data of `dataFromTask` decoded (see `stringFromData`); "" for no data.
  static std::string stringFromTask(const std::string& path, const Arguments& arguments = {},
                                    StringEncoding encoding = ASCIIStringEncoding,
                                    TaskHandle* task = nullptr);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments,
                                    TaskHandle* task);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments,
                                    double timeout);
  static std::string stringFromTask(const std::string& path, const Arguments& arguments,
                                    StringEncoding encoding, double timeout, bool logOutput = true,
                                    bool logError = true);

  // Starts the tool (output and error to the null device) and returns at once.
  static void runTaskAndReturn(const std::string& path, const Arguments& arguments = {});

  // Decodes bytes as text (UTF-8). ASCII: bytes above 0x7F become U+FFFD.
  // UTF-8: each byte of an invalid sequence becomes U+FFFD. ISO Latin 1:
  // every byte is its own character. Other encodings: none.
  static std::optional<std::string> stringFromData(std::string_view data, StringEncoding encoding);

  // Whether a path names a tool the runner will start: an executable regular
  // file that is not a package.
  static bool isExecutableTool(const std::string& path);

  // --- Asynchronous instance forms ----------------------------------------------
  // Sets up a run and starts it on a new detached thread; returns at once.
  // Standard error goes to the null device. A run still in progress on this
  // instance is terminated first.
  void asyncDataFromTask(const std::string& path, const Arguments& arguments,
                         AsyncDataHandler delegate, std::any object = {},
                         std::optional<Environment> environment = std::nullopt);
  // The body of the run's thread: launches `theTask` and delivers its output.
  void launchAsyncTask();
  // Delivers one chunk to the delegate; the empty chunk also ends the run.
  void asyncTaskReturnData(const KdTaskDataNotification& notification);
  // Ends the run: stops reading, drops the delegate and object, terminates the
  // child if it runs, clears `theTask`. Safe at any time, from any thread.
  void terminateAsyncTask();
  void terminateTask() { terminateAsyncTask(); }

  TaskHandle theTask() const;
  void setTheTask(TaskHandle task);

 private:
  KdTaskEx() = default;

  // Called by the synchronous long forms: once the child exists (before
  // launch) and once it runs.
  struct RunHooks {
    std::function<void(const TaskHandle&)> created;
    std::function<void(const TaskHandle&)> launched;
  };
  static RunHooks hooksFor(TaskHandle* task);
  // Starts a tool with both output streams on the null device; none, after
  // logging why, when it is not executable or does not start.
  static TaskHandle launchQuiet(const std::string& path, const Arguments& arguments,
                                const RunHooks& hooks);
  static bool runTaskImpl(const std::string& path, const Arguments& arguments,
                          const RunHooks& hooks);
  static std::int32_t terminationCodeImpl(const std::string& path, const Arguments& arguments,
                                          const RunHooks& hooks);
  static std::optional<Data> dataImpl(const std::string& path, const Arguments& arguments,
                                      const std::optional<Environment>& environment, bool logOutput,
                                      bool logError, const RunHooks& hooks);

  // Time-out runs: `body` is the long form, run with hooks that keep
  // `theTask` and start the timer at launch.
  template <class Result>
  Result runWithTimeout(double timeout, const std::function<Result(const RunHooks&)>& body);
  class Timer;
  // The timer's action: SIGTERM to a child that still runs, SIGKILL after
  // the grace, then an end to any read still waiting on the pipes.
  void timeout();

  // Asynchronous runs carry a number so that a replaced run never touches the
  // fields of the run that replaced it.
  void runAsync(std::uint64_t generation);
  void deliver(const KdTaskDataNotification& notification, std::uint64_t generation);
  void endRun(std::uint64_t generation);
  // Ends the run of that number, or whatever run there is (none).
  void endRun(std::optional<std::uint64_t> generation);

  // Shared so that a chunk's delivery can use them outside the lock, and so
  // that they are released outside it (their destructors are the caller's code).
  mutable std::mutex mutex_;
  TaskHandle theTask_;                                // guarded by mutex_
  std::shared_ptr<const AsyncDataHandler> delegate_;  // guarded by mutex_
  std::shared_ptr<const std::any> object_;            // guarded by mutex_
  std::uint64_t generation_ = 0;                      // guarded by mutex_
  bool timedOut_ = false;                             // guarded by mutex_
};
