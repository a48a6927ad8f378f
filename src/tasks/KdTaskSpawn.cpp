// Set-up and launch of a child.
//
// Every descriptor this process makes is close-on-exec from birth (pipe2 with
// O_CLOEXEC), and the child gets only its own pipe ends (or the null device,
// or our streams) on 0, 1 and 2 (common/Spawn.h), so nothing of ours leaks
// into it.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "common/Spawn.h"
#include "tasks/KdTask.h"

namespace {

struct PipeEnds {
  kd::UniqueFd read;
  kd::UniqueFd write;
};

bool makePipe(PipeEnds* ends, int extraFlags, std::string* error) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | extraFlags) != 0) {
    if (error) *error = std::strerror(errno);
    return false;
  }
  ends->read.reset(fds[0]);
  ends->write.reset(fds[1]);
  return true;
}

}  // namespace

void KdTask::setLaunchPath(std::string path) {
  std::lock_guard lock(mutex_);
  launchPath_ = std::move(path);
}

std::string KdTask::launchPath() const {
  std::lock_guard lock(mutex_);
  return launchPath_;
}

void KdTask::setArguments(Arguments arguments) {
  std::lock_guard lock(mutex_);
  arguments_ = std::move(arguments);
}

void KdTask::setEnvironment(std::optional<Environment> environment) {
  std::lock_guard lock(mutex_);
  environment_ = std::move(environment);
}

void KdTask::setStandardInput(Stdio how) {
  std::lock_guard lock(mutex_);
  stdin_ = how;
}

void KdTask::setStandardOutput(Stdio how) {
  std::lock_guard lock(mutex_);
  stdout_ = how;
}

void KdTask::setStandardError(Stdio how) {
  std::lock_guard lock(mutex_);
  stderr_ = how;
}

bool KdTask::launch(std::string* error) {
  std::lock_guard lock(mutex_);
  if (launched_) {
    if (error) *error = "the task was already launched";
    return false;
  }
  kd::SpawnRequest request;
  request.argv.reserve(arguments_.size() + 1);
  request.argv.push_back(launchPath_);
  request.argv.insert(request.argv.end(), arguments_.begin(), arguments_.end());
  if (environment_) {
    std::vector<std::string> entries;
    entries.reserve(environment_->size());
    for (const auto& [key, value] : *environment_) entries.push_back(key + "=" + value);
    request.environment = std::move(entries);
  }
  const Stdio how[3] = {stdin_, stdout_, stderr_};
  PipeEnds pipes[3];
  for (int stream = 0; stream < 3; ++stream) {
    switch (how[stream]) {
      case Stdio::Inherit:
        request.fds.push_back({stream, stream});
        break;
      case Stdio::NullDevice:
        request.fds.push_back({stream, kd::ChildFd::kNullDevice});
        break;
      case Stdio::Pipe: {
        if (!makePipe(&pipes[stream], 0, error)) return false;
        const kd::UniqueFd& childEnd = stream == 0 ? pipes[stream].read : pipes[stream].write;
        request.fds.push_back({stream, childEnd.get()});
        break;
      }
    }
  }

  // Made before the spawn so that a failure here leaves no child behind.
  PipeEnds wakePipe;
  const bool anyReader = how[1] == Stdio::Pipe || how[2] == Stdio::Pipe;
  if (anyReader && !makePipe(&wakePipe, O_NONBLOCK, error)) return false;

  const kd::SpawnResult child = kd::spawnProcess(request);
  if (!child) {
    if (error) *error = std::strerror(child.error);
    return false;
  }
  pid_ = child.pid;
  launched_ = true;
  outcome_.kind = Outcome::Kind::Running;
  // The child's ends close here with `pipes`; so does our writing end of its
  // standard input, which gives the child end of file instead of a wait
  // for input that never comes.
  outReader_ = std::move(pipes[1].read);
  errReader_ = std::move(pipes[2].read);
  wakeReader_ = std::move(wakePipe.read);
  wakeWriter_ = std::move(wakePipe.write);
  if (stopped_.load()) wake();
  return true;
}
