// Runs with a time-out.
//
// There is no run loop to hand the time-out to, so it fires on the run's own
// timer thread whatever the calling thread is doing, and the run returns what
// it collected until then. The timer starts when the child has been launched
// (a time-out of 0 s thus ends the child right after its start, never before)
// and is joined before the run returns, so no thread outlives its run.
#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <exception>
#include <thread>

#include "common/ThreadAnnotations.h"
#include "log/KdLog.h"
#include "tasks/KdTaskEx.h"

namespace {

// Whole seconds by truncation toward zero; negative and NaN fire at once.
long wholeSeconds(double timeout) {
  if (!(timeout > 0)) return 0;
  constexpr double kLongest = 100.0 * 365 * 24 * 3600;
  return static_cast<long>(std::trunc(std::min(timeout, kLongest)));
}

// How long a killed child may take to be gone before reads stop waiting for it.
constexpr std::chrono::milliseconds kKillWait{2000};

}  // namespace

// Waits for the deadline unless the run ends first, then calls the owner's
// `timeout`. Owned by one run; the thread is joined by the destructor. Once
// fired, the time-out completes its termination even if the run ends meanwhile.
class KdTaskEx::Timer {
 public:
  Timer(KdTaskEx& owner, long seconds)
      : owner_(owner), deadline_(std::chrono::steady_clock::now() + std::chrono::seconds(seconds)) {
    thread_ = std::thread([this] { run(); });
  }
  ~Timer() {
    {
      kd::MutexLock lock(mutex_);
      cancelled_ = true;
    }
    cv_.notify_all();
    thread_.join();
  }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

 private:
  void run() {
    {
      kd::MutexLock lock(mutex_);
      while (!cancelled_ && lock.waitUntil(cv_, deadline_) == std::cv_status::no_timeout) {
      }
      if (cancelled_) return;
    }
    owner_.timeout();
  }

  KdTaskEx& owner_;
  const std::chrono::steady_clock::time_point deadline_;
  kd::Mutex mutex_;
  std::condition_variable cv_;
  bool cancelled_ KD_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

void KdTaskEx::timeout() {
  TaskHandle task = theTask();
  if (!task) return;
  if (task->isRunning()) {
    {
      std::lock_guard lock(mutex_);
      timedOut_ = true;
    }
    KdLog::appendLogAndPrint("Task %@ timed out. Terminating...", task->launchPath());
    task->terminate();
    if (!task->waitUntilExit(kTerminationGrace)) {
      task->kill();
      task->waitUntilExit(kKillWait);
    }
  }
  // Normally the pipes closed with the child; a process it left behind may
  // still hold them open, and the run must not wait for that one.
  task->stopReading();
}

template <class Result>
Result KdTaskEx::runWithTimeout(double timeout,
                                const std::function<Result(const RunHooks&)>& body) {
  const long seconds = wholeSeconds(timeout);
  std::optional<Timer> timer;
  RunHooks hooks;
  hooks.created = [this](const TaskHandle& task) { setTheTask(task); };
  hooks.launched = [&](const TaskHandle& task) {
    try {
      timer.emplace(*this, seconds);
    } catch (const std::exception& e) {
      // No thread for the timer: the run goes on without a time-out.
      KdLog::appendLog("Exception running task %@: %@", task->launchPath(), e.what());
    }
  };
  setTheTask(nullptr);
  Result result = body(hooks);
  setTheTask(nullptr);
  timer.reset();
  return result;
}

bool KdTaskEx::runTask(const std::string& path, const Arguments& arguments, double timeout) {
  return create()->runWithTimeout<bool>(
      timeout, [&](const RunHooks& hooks) { return runTaskImpl(path, arguments, hooks); });
}

std::int32_t KdTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                               double timeout) {
  return create()->runWithTimeout<std::int32_t>(
      timeout, [&](const RunHooks& hooks) { return terminationCodeImpl(path, arguments, hooks); });
}

std::optional<KdTaskEx::Data> KdTaskEx::dataFromTask(const std::string& path,
                                                     const Arguments& arguments, double timeout,
                                                     bool logOutput, bool logError) {
  return create()->runWithTimeout<std::optional<Data>>(timeout, [&](const RunHooks& hooks) {
    return dataImpl(path, arguments, std::nullopt, logOutput, logError, hooks);
  });
}

std::optional<KdTaskEx::Data> KdTaskEx::dataFromTaskWithReport(const std::string& path,
                                                               const Arguments& arguments,
                                                               std::optional<double> timeout,
                                                               RunReport& report) {
  report = RunReport{};
  std::shared_ptr<KdTaskEx> runner = create();
  TaskHandle task;
  // The child is waited for inside the run, so that a time-out still ends a
  // child that closed its output early.
  auto body = [&](const RunHooks& hooks) -> std::optional<Data> {
    RunHooks withTask = hooks;
    withTask.created = [&, inner = hooks.created](const TaskHandle& t) {
      task = t;
      if (inner) inner(t);
    };
    std::optional<Data> data = dataImpl(path, arguments, std::nullopt, true, true, withTask);
    try {
      if (task) task->waitUntilExit();
    } catch (const std::exception& e) {
      KdLog::appendLog("Exception running task %@: %@", path, e.what());
    }
    return data;
  };
  std::optional<Data> data =
      timeout ? runner->runWithTimeout<std::optional<Data>>(*timeout, body) : body(RunHooks{});
  if (task) report.outcome = task->outcome();
  std::lock_guard lock(runner->mutex_);
  report.timedOut = runner->timedOut_;
  return data;
}

std::string KdTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     double timeout) {
  return stringFromTask(path, arguments, ASCIIStringEncoding, timeout);
}

std::string KdTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     StringEncoding encoding, double timeout, bool logOutput,
                                     bool logError) {
  std::optional<Data> data = dataFromTask(path, arguments, timeout, logOutput, logError);
  if (!data) return "";
  return stringFromData(*data, encoding).value_or("");
}
