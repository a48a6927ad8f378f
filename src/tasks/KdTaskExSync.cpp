// The synchronous class forms: run and wait, exit status, captured output,
// start and leave running.
#include <sys/stat.h>
#include <unistd.h>

#include <exception>

#include "log/KdLog.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

void logNotExecutable(const std::string& path) {
  KdLog::appendLogAndPrint("Error: %@ is not executable", path);
}

}  // namespace

bool KdTaskEx::isExecutableTool(const std::string& path) {
  // A folder passes access(X_OK), so the regular-file test comes first.
  struct stat st {};
  if (path.empty() || ::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  if (::access(path.c_str(), X_OK) != 0) return false;
  return !kd::platform().desktop().isFilePackage(path);
}

KdTaskEx::RunHooks KdTaskEx::hooksFor(TaskHandle* task) {
  RunHooks hooks;
  if (task) hooks.created = [task](const TaskHandle& t) { *task = t; };
  return hooks;
}

KdTaskEx::TaskHandle KdTaskEx::launchQuiet(const std::string& path, const Arguments& arguments,
                                           const RunHooks& hooks) {
  if (!isExecutableTool(path)) {
    logNotExecutable(path);
    return nullptr;
  }
  TaskHandle task = KdTask::create();
  if (hooks.created) hooks.created(task);
  task->setLaunchPath(path);
  task->setArguments(arguments);
  task->setStandardError(KdTask::Stdio::NullDevice);
  task->setStandardOutput(KdTask::Stdio::NullDevice);
  std::string error;
  if (!task->launch(&error)) {
    KdLog::appendLog("Exception running task %@: %@", path, error);
    return nullptr;
  }
  if (hooks.launched) hooks.launched(task);
  return task;
}

bool KdTaskEx::runTaskImpl(const std::string& path, const Arguments& arguments,
                           const RunHooks& hooks) {
  try {
    TaskHandle task = launchQuiet(path, arguments, hooks);
    if (!task) return false;
    task->waitUntilExit();
    return true;
  } catch (const std::exception& e) {
    KdLog::appendLog("Exception running task %@: %@", path, e.what());
    return false;
  }
}

std::int32_t KdTaskEx::terminationCodeImpl(const std::string& path, const Arguments& arguments,
                                           const RunHooks& hooks) {
  try {
    TaskHandle task = launchQuiet(path, arguments, hooks);
    if (!task) return -1;
    if (task->isRunning()) task->waitUntilExit();
    return task->terminationStatus();
  } catch (const std::exception& e) {
    KdLog::appendLog("Exception running task %@: %@", path, e.what());
    return -1;
  }
}

std::optional<KdTaskEx::Data> KdTaskEx::dataImpl(const std::string& path,
                                                 const Arguments& arguments,
                                                 const std::optional<Environment>& environment,
                                                 bool logOutput, bool logError,
                                                 const RunHooks& hooks) {
  if (!isExecutableTool(path)) {
    logNotExecutable(path);
    return std::nullopt;
  }
  try {
    TaskHandle task = KdTask::create();
    if (hooks.created) hooks.created(task);
    task->setLaunchPath(path);
    task->setArguments(arguments);
    task->setEnvironment(environment);
    task->setStandardInput(KdTask::Stdio::Pipe);
    task->setStandardOutput(logOutput ? KdTask::Stdio::Pipe : KdTask::Stdio::Inherit);
    task->setStandardError(logError ? KdTask::Stdio::Pipe : KdTask::Stdio::NullDevice);
    std::string launchError;
    if (!task->launch(&launchError)) {
      KdLog::appendLogAndPrint("Exception running task %@: %@", path, launchError);
      return std::nullopt;
    }
    if (hooks.launched) hooks.launched(task);
    // Output and error are drained together (a child that fills its error pipe
    // first would otherwise stall) but kept apart, so the result is the same
    // as reading output to its end and then error.
    Data output;
    Data error;
    task->readToEnd(logOutput ? &output : nullptr, logError ? &error : nullptr);
    task->closeStreams();
    // The result does not depend on the child's exit; it must not linger as a
    // zombie either.
    task->reapInBackground();
    if (!output.empty()) return output;
    if (!error.empty()) return error;
    return output;
  } catch (const std::exception& e) {
    KdLog::appendLogAndPrint("Exception running task %@: %@", path, e.what());
    return std::nullopt;
  }
}

bool KdTaskEx::runTask(const std::string& path, const Arguments& arguments, TaskHandle* task) {
  return runTaskImpl(path, arguments, hooksFor(task));
}

std::int32_t KdTaskEx::terminationCodeFromTask(const std::string& path, const Arguments& arguments,
                                               TaskHandle* task) {
  return terminationCodeImpl(path, arguments, hooksFor(task));
}

std::optional<KdTaskEx::Data> KdTaskEx::dataFromTask(const std::string& path,
                                                     const Arguments& arguments, TaskHandle* task,
                                                     const std::optional<Environment>& environment,
                                                     bool logOutput, bool logError) {
  return dataImpl(path, arguments, environment, logOutput, logError, hooksFor(task));
}

std::string KdTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     StringEncoding encoding, TaskHandle* task) {
  std::optional<Data> data = dataFromTask(path, arguments, task);
  if (!data) return "";
  return stringFromData(*data, encoding).value_or("");
}

std::string KdTaskEx::stringFromTask(const std::string& path, const Arguments& arguments,
                                     TaskHandle* task) {
  return stringFromTask(path, arguments, ASCIIStringEncoding, task);
}

void KdTaskEx::runTaskAndReturn(const std::string& path, const Arguments& arguments) {
  try {
    if (TaskHandle task = launchQuiet(path, arguments, RunHooks{})) task->reapInBackground();
  } catch (const std::exception& e) {
    KdLog::appendLog("Exception running task %@: %@", path, e.what());
  }
}
