// Asynchronous runs: the child's output, chunk by chunk, to a delegate on the
// run's own detached thread.
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <thread>
#include <utility>

#include "log/KdException.h"
#include "log/KdLog.h"
#include "tasks/KdTaskEx.h"

namespace {

constexpr const char* kLaunchMethod = "-[KdTaskEx launchAsyncTask]";
constexpr const char* kLaunchFailureName = "KdTaskLaunchException";

// No package test here: the asynchronous runner only asks for an existing,
// executable path.
bool existsAndIsExecutable(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::shared_ptr<KdTaskEx> KdTaskEx::create() {
  return std::shared_ptr<KdTaskEx>(new KdTaskEx());
}

KdTaskEx::~KdTaskEx() = default;

KdTaskEx::TaskHandle KdTaskEx::theTask() const {
  std::lock_guard lock(mutex_);
  return theTask_;
}

void KdTaskEx::setTheTask(TaskHandle task) {
  std::lock_guard lock(mutex_);
  theTask_ = std::move(task);
}

void KdTaskEx::asyncDataFromTask(const std::string& path, const Arguments& arguments,
                                 AsyncDataHandler delegate, std::any object,
                                 std::optional<Environment> environment) {
  try {
    // One instance, one child: a run still going is ended first.
    terminateAsyncTask();
    TaskHandle task = KdTask::create();
    task->setStandardOutput(KdTask::Stdio::Pipe);
    task->setStandardError(KdTask::Stdio::NullDevice);
    task->setEnvironment(std::move(environment));
    task->setLaunchPath(path);
    task->setArguments(arguments);
    auto handler = std::make_shared<const AsyncDataHandler>(std::move(delegate));
    std::shared_ptr<const std::any> value;
    if (object.has_value()) value = std::make_shared<const std::any>(std::move(object));
    std::uint64_t generation;
    {
      std::lock_guard lock(mutex_);
      delegate_ = std::move(handler);
      object_ = std::move(value);
      theTask_ = std::move(task);
      generation = ++generation_;
    }
    std::thread([self = shared_from_this(), generation] { self->runAsync(generation); }).detach();
  } catch (const std::exception& e) {
    KdException::logException(e, kLaunchMethod);
    terminateAsyncTask();
  }
}

void KdTaskEx::launchAsyncTask() {
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    generation = generation_;
  }
  runAsync(generation);
}

void KdTaskEx::runAsync(std::uint64_t generation) {
  enum class Start { Launched, Replaced, NoTask, NotExecutable, Failed };
  Start start = Start::Failed;
  TaskHandle task;
  std::string error;
  {
    // Launching under the lock means a terminateTask() that comes before it
    // finds no child yet and one that comes after finds it running.
    std::lock_guard lock(mutex_);
    task = theTask_;
    if (generation != generation_) {
      start = Start::Replaced;
    } else if (!task) {
      start = Start::NoTask;
    } else if (!existsAndIsExecutable(task->launchPath())) {
      start = Start::NotExecutable;
    } else {
      start = task->launch(&error) ? Start::Launched : Start::Failed;
    }
  }
  switch (start) {
    case Start::Replaced:
      return;
    case Start::NoTask:
      KdLog::appendLogAndPrint("Unable to launch async task - no task set");
      return;
    case Start::NotExecutable:
      KdLog::appendLog("Unable to launch async task - task does not exist or is not executable");
      endRun(generation);
      return;
    case Start::Failed:
      KdException::logException(kLaunchFailureName, error, kLaunchMethod);
      endRun(generation);
      return;
    case Start::Launched:
      break;
  }
  try {
    for (;;) {
      KdTaskDataNotification chunk;
      chunk.data = task->readAvailableData(KdTask::Stream::Output);
      const bool end = chunk.data.empty();
      deliver(chunk, generation);
      if (end) break;
    }
  } catch (const std::exception& e) {
    // The delegate's own exceptions end up here too: none may leave this thread.
    KdException::logException(e, kLaunchMethod);
    endRun(generation);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception",
                              kLaunchMethod);
    endRun(generation);
  }
  // However the run ended, its child ends with it and is reaped here.
  if (task->isRunning()) {
    task->terminate();
    if (!task->waitUntilExit(kTerminationGrace)) task->kill();
  }
  task->waitUntilExit();
}

void KdTaskEx::asyncTaskReturnData(const KdTaskDataNotification& notification) {
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    generation = generation_;
  }
  deliver(notification, generation);
}

void KdTaskEx::deliver(const KdTaskDataNotification& notification, std::uint64_t generation) {
  std::shared_ptr<const AsyncDataHandler> handler;
  std::shared_ptr<const std::any> object;
  {
    std::lock_guard lock(mutex_);
    if (generation == generation_) {
      handler = delegate_;
      object = object_;
    }
  }
  static const std::any kNoObject;
  const std::any& third = object ? *object : kNoObject;
  if (!notification.data.empty()) {
    if (handler && *handler) (*handler)(notification.data, *this, third);
    return;
  }
  if (handler && *handler) (*handler)(Data(), *this, third);
  endRun(generation);
}

void KdTaskEx::endRun(std::uint64_t generation) {
  endRun(std::optional<std::uint64_t>(generation));
}

void KdTaskEx::terminateAsyncTask() {
  endRun(std::nullopt);
}

void KdTaskEx::endRun(std::optional<std::uint64_t> generation) {
  TaskHandle task;
  std::shared_ptr<const AsyncDataHandler> handler;
  std::shared_ptr<const std::any> object;
  {
    // Checked and taken in one step: a new set-up cannot slip in between.
    std::lock_guard lock(mutex_);
    if (generation && *generation != generation_) return;
    task = std::exchange(theTask_, nullptr);
    handler = std::exchange(delegate_, nullptr);
    object = std::exchange(object_, nullptr);
  }
  if (task) {
    task->stopReading();
    if (task->isRunning()) task->terminate();
  }
  // The delegate and object are released here, outside the lock.
}
