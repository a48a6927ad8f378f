// Set-up and launch of a child with posix_spawn.
//
// Every descriptor this process makes is close-on-exec from birth (pipe2 with
// O_CLOEXEC), and the spawn's file actions only put the child's own pipe ends
// on 0, 1 and 2, so nothing of ours leaks into the child. Where the C library
// can, the child also closes every descriptor above 2 that someone else in this
// process opened without O_CLOEXEC.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cstring>

#include "tasks/KdTask.h"

extern char** environ;

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

// A child end that happens to be 0, 1 or 2 (when the parent runs with a
// standard stream closed) would be dup2'ed onto itself, which keeps its
// close-on-exec flag or clobbers a stream the child needs; move it above 2.
bool moveAboveStandardStreams(kd::UniqueFd* fd, std::string* error) {
  if (fd->get() > 2) return true;
  int moved = ::fcntl(fd->get(), F_DUPFD_CLOEXEC, 3);
  if (moved < 0) {
    if (error) *error = std::strerror(errno);
    return false;
  }
  fd->reset(moved);
  return true;
}

// Owns the spawn attribute objects for the length of one launch.
struct SpawnSetup {
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnSetup() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
};

// The child starts with no blocked signals and default dispositions, whatever
// the launching thread blocked or this process ignores (SIGPIPE, often).
void resetSignals(posix_spawnattr_t* attributes) {
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(attributes, &none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig != SIGKILL && sig != SIGSTOP) sigaddset(&defaults, sig);
  }
  posix_spawnattr_setsigdefault(attributes, &defaults);
  posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
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
  SpawnSetup setup;
  const Stdio how[3] = {stdin_, stdout_, stderr_};
  PipeEnds pipes[3];
  for (int stream = 0; stream < 3; ++stream) {
    switch (how[stream]) {
      case Stdio::Inherit:
        break;
      case Stdio::NullDevice:
        posix_spawn_file_actions_addopen(&setup.actions, stream, "/dev/null",
                                         stream == 0 ? O_RDONLY : O_WRONLY, 0);
        break;
      case Stdio::Pipe: {
        if (!makePipe(&pipes[stream], 0, error)) return false;
        kd::UniqueFd& childEnd = stream == 0 ? pipes[stream].read : pipes[stream].write;
        if (!moveAboveStandardStreams(&childEnd, error)) return false;
        posix_spawn_file_actions_adddup2(&setup.actions, childEnd.get(), stream);
        break;
      }
    }
  }
  // Descriptors opened elsewhere without O_CLOEXEC stay out of the child too.
  // (The macOS counterpart is POSIX_SPAWN_CLOEXEC_DEFAULT, with
  // posix_spawn_file_actions_addinherit_np for inherited streams.)
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  posix_spawn_file_actions_addclosefrom_np(&setup.actions, 3);
#endif
  resetSignals(&setup.attributes);

  std::vector<char*> argv;
  argv.reserve(arguments_.size() + 2);
  argv.push_back(launchPath_.data());
  for (auto& a : arguments_) argv.push_back(a.data());
  argv.push_back(nullptr);

  std::vector<std::string> envStrings;
  std::vector<char*> envp;
  if (environment_) {
    envStrings.reserve(environment_->size());
    for (const auto& [key, value] : *environment_) envStrings.push_back(key + "=" + value);
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
  }

  // Made before the spawn so that a failure here leaves no child behind.
  PipeEnds wakePipe;
  const bool anyReader = how[1] == Stdio::Pipe || how[2] == Stdio::Pipe;
  if (anyReader && !makePipe(&wakePipe, O_NONBLOCK, error)) return false;

  pid_t pid = 0;
  int rc = posix_spawn(&pid, launchPath_.c_str(), &setup.actions, &setup.attributes, argv.data(),
                       environment_ ? envp.data() : environ);
  if (rc != 0) {
    if (error) *error = std::strerror(rc);
    return false;
  }
  pid_ = pid;
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
