#include "common/WorkQueue.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <system_error>
#include <thread>

namespace kd {

namespace {

// Tasks mostly wait on a delegate rather than compute, so the pool may hold
// more threads than there are cores; the cap keeps a run of blocked delegates
// from starting threads without end.
std::size_t workerLimit() {
  const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
  return std::clamp<std::size_t>(2 * cores, 4, 64);
}

}  // namespace

WorkQueue& WorkQueue::shared() {
  // Leaked on purpose: see the class comment.
  static WorkQueue* queue = new WorkQueue();
  return *queue;
}

WorkQueue::WorkQueue() : limit_(workerLimit()) {}

void WorkQueue::async(Task task) {
  if (!task) return;
  MutexLock lock(mu_);
  tasks_.push_back(std::move(task));
  if (tasks_.size() > waiting_ && threads_ < limit_) {
    try {
      std::thread([this] { work(); }).detach();
      ++threads_;
    } catch (const std::system_error&) {
      // No thread now: the task waits for a worker that exists or starts with
      // a later submission.
      if (threads_ == 0) std::fputs("kd: unable to start a worker thread\n", stderr);
    }
  }
  lock.unlock();
  wake_.notify_one();
}

void WorkQueue::waitUntilIdle() {
  MutexLock lock(mu_);
  while (!tasks_.empty() || running_ != 0) lock.wait(idle_);
}

void WorkQueue::work() {
  MutexLock lock(mu_);
  for (;;) {
    ++waiting_;
    while (tasks_.empty()) lock.wait(wake_);
    --waiting_;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    ++running_;
    lock.unlock();
    try {
      task();
    } catch (...) {
      std::fputs("kd: a queued task ended with an exception\n", stderr);
    }
    task = nullptr;  // what it captured goes before the queue counts it done
    lock.lock();
    --running_;
    if (tasks_.empty() && running_ == 0) idle_.notify_all();
  }
}

}  // namespace kd
