// Lock annotations for clang's -Wthread-safety, and a mutex that carries them
// (libstdc++'s std::mutex carries none). Members guarded by a lock are marked
// KD_GUARDED_BY(lock); clang then checks at compile time that every access
// holds it. With other compilers the macros expand to nothing.
//
// Mutex and MutexLock: as std::mutex and std::unique_lock; any thread, one
// owner of a lock at a time.
#pragma once

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KD_THREAD_ANNOTATION(x)
#endif

#define KD_CAPABILITY(x) KD_THREAD_ANNOTATION(capability(x))
#define KD_SCOPED_CAPABILITY KD_THREAD_ANNOTATION(scoped_lockable)
#define KD_GUARDED_BY(x) KD_THREAD_ANNOTATION(guarded_by(x))
#define KD_PT_GUARDED_BY(x) KD_THREAD_ANNOTATION(pt_guarded_by(x))
#define KD_REQUIRES(...) KD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KD_EXCLUDES(...) KD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KD_ACQUIRE(...) KD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KD_RELEASE(...) KD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KD_TRY_ACQUIRE(...) KD_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KD_NO_THREAD_SAFETY_ANALYSIS KD_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace kd {

class KD_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() KD_ACQUIRE() { m_.lock(); }
  void unlock() KD_RELEASE() { m_.unlock(); }
  bool try_lock() KD_TRY_ACQUIRE(true) { return m_.try_lock(); }

 private:
  friend class MutexLock;
  std::mutex m_;
};

// Holds a Mutex from construction to destruction (or unlock); waits on a
// condition variable with it held, as std::unique_lock does.
class KD_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) KD_ACQUIRE(mutex) : lock_(mutex.m_) {}
  ~MutexLock() KD_RELEASE() {}
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() KD_ACQUIRE() { lock_.lock(); }
  void unlock() KD_RELEASE() { lock_.unlock(); }

  // Releases the mutex while waiting and holds it again on return (the
  // analysis sees it held throughout). Callers loop on their condition.
  void wait(std::condition_variable& cv) { cv.wait(lock_); }
  template <class Clock, class Duration>
  std::cv_status waitUntil(std::condition_variable& cv,
                           const std::chrono::time_point<Clock, Duration>& deadline) {
    return cv.wait_until(lock_, deadline);
  }
  template <class Rep, class Period>
  std::cv_status waitFor(std::condition_variable& cv,
                         const std::chrono::duration<Rep, Period>& limit) {
    return cv.wait_for(lock_, limit);
  }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace kd
