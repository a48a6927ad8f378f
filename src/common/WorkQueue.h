// The library's shared concurrent work queue: a small pool of worker threads
// that runs submitted tasks off the caller's thread, several at once and in no
// promised order. Hashing and copying send their delegate's questions and
// progress reports through it, so a slow delegate never stalls the reading.
//
// Ownership: one instance, created on first use and never destroyed (tasks may
// still be running while the process exits); its threads are detached. A task
// owns what it captures: capture shared pointers, never references to the
// submitter's locals, since a task may run after the submitter has returned.
// Threads: every operation may be called from any thread; `async` also from a
// task.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

#include "common/ThreadAnnotations.h"

namespace kd {

class WorkQueue {
 public:
  using Task = std::function<void()>;

  // The process's queue; the first call creates it. Threads start on demand.
  static WorkQueue& shared();

  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  // Queues `task` and returns at once; it runs on a worker thread, never on the
  // caller's. A new worker starts while the queued tasks outnumber the idle
  // workers, up to a limit, so that one blocked task does not hold back the
  // others. A task reports its own failures: an exception that escapes one is
  // dropped with a line on standard error.
  void async(Task task);

  // Blocks until no task is queued or running. Never call it from a task.
  void waitUntilIdle();

  // The most workers the queue starts.
  std::size_t threadLimit() const { return limit_; }

 private:
  WorkQueue();
  ~WorkQueue() = delete;  // never destroyed: workers may outlive main()
  void work();

  const std::size_t limit_;
  Mutex mu_;
  std::condition_variable wake_;  // a task was queued
  std::condition_variable idle_;  // the queue emptied and nothing runs
  std::deque<Task> tasks_ KD_GUARDED_BY(mu_);
  std::size_t threads_ KD_GUARDED_BY(mu_) = 0;
  std::size_t waiting_ KD_GUARDED_BY(mu_) = 0;  // workers waiting for a task
  std::size_t running_ KD_GUARDED_BY(mu_) = 0;  // tasks being run
};

}  // namespace kd
