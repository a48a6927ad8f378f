// Waiting for, signalling and reaping a launched child.
//
// Blocking waits use waitid(WNOWAIT), which sleeps until the child has ended
// without reaping it; the reaping itself (waitpid WNOHANG) and every kill()
// happen under the task's lock. So several threads may wait, poll and signal at
// once, and no signal can reach a process id that was reaped and handed out
// again.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>

#include <thread>

#include "tasks/KdTask.h"

namespace {

// Reaps a child that nobody holds any more; the thread ends with the child.
void reapDetached(pid_t pid) {
  try {
    std::thread([pid] {
      int status = 0;
      kd::retryOnEintr([&] { return ::waitpid(pid, &status, 0); });
    }).detach();
  } catch (...) {
    // No thread to spare: the child stays a zombie until this process ends.
  }
}

}  // namespace

KdTask::~KdTask() {
  // No lock: the last owner is going away, so nobody else can hold it.
  if (!launched_ || reaped_) return;
  int status = 0;
  pid_t r = kd::retryOnEintr([&] { return ::waitpid(pid_, &status, WNOHANG); });
  if (r == 0) reapDetached(pid_);
}

pid_t KdTask::processIdentifier() const {
  std::lock_guard lock(mutex_);
  return pid_;
}

// Requires mutex_. True once the child is reaped (now or before).
bool KdTask::reapLocked(int waitFlags) {
  if (!launched_ || reaped_) return true;
  int status = 0;
  pid_t r = kd::retryOnEintr([&] { return ::waitpid(pid_, &status, waitFlags); });
  if (r == 0) return false;
  reaped_ = true;
  if (r < 0) {
    // ECHILD: someone else reaped it (or SIGCHLD is ignored); the status is lost.
    outcome_ = {Outcome::Kind::Unknown, 0};
  } else if (WIFSIGNALED(status)) {
    outcome_ = {Outcome::Kind::Signalled, WTERMSIG(status)};
  } else {
    outcome_ = {Outcome::Kind::Exited, WEXITSTATUS(status)};
  }
  return true;
}

bool KdTask::isRunning() {
  std::lock_guard lock(mutex_);
  return launched_ && !reapLocked(WNOHANG);
}

void KdTask::waitUntilExit() {
  pid_t pid;
  {
    std::lock_guard lock(mutex_);
    if (reapLocked(WNOHANG)) return;
    pid = pid_;
  }
  for (;;) {
    siginfo_t info{};
    int r = kd::retryOnEintr([&] { return ::waitid(P_PID, pid, &info, WEXITED | WNOWAIT); });
    std::lock_guard lock(mutex_);
    // After a failed waitid (ECHILD: reaped elsewhere) the blocking reap
    // returns at once as well.
    if (reapLocked(r == 0 ? WNOHANG : 0)) return;
  }
}

bool KdTask::waitUntilExit(std::chrono::milliseconds limit) {
  // Used only while ending a child, so a short polling step costs nothing
  // that matters and works wherever waitpid does.
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (!isRunning()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void KdTask::terminate() {
  std::lock_guard lock(mutex_);
  if (launched_ && !reapLocked(WNOHANG)) ::kill(pid_, SIGTERM);
}

void KdTask::kill() {
  std::lock_guard lock(mutex_);
  if (launched_ && !reapLocked(WNOHANG)) ::kill(pid_, SIGKILL);
}

void KdTask::reapInBackground() {
  std::shared_ptr<KdTask> self = weak_from_this().lock();
  {
    std::lock_guard lock(mutex_);
    if (reapLocked(WNOHANG) || backgroundWaiter_) return;
    // Without a shared owner the destructor does the same job.
    if (!self) return;
    backgroundWaiter_ = true;
  }
  try {
    std::thread([self] { self->waitUntilExit(); }).detach();
  } catch (...) {
    std::lock_guard lock(mutex_);
    backgroundWaiter_ = false;
  }
}

KdTask::Outcome KdTask::outcome() {
  std::lock_guard lock(mutex_);
  reapLocked(WNOHANG);
  return outcome_;
}

int KdTask::terminationStatus() {
  Outcome o = outcome();
  if (o.kind == Outcome::Kind::Exited || o.kind == Outcome::Kind::Signalled) return o.value;
  return -1;
}
