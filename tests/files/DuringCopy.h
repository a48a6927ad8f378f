// A change made to files by another thread while a copy runs on this one.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace kd::test {

// Runs `action` on a thread of its own once the file `watched` (a destination)
// holds `when` bytes, while a copy runs on the owner's thread. Owned by one
// test; the thread ends with end() or the object.
class DuringCopy {
 public:
  DuringCopy(std::string watched, std::size_t when, std::function<void()> action)
      : thread_([this, watched = std::move(watched), when, action = std::move(action)] {
          struct stat st {};
          while (!done_) {
            if (::stat(watched.c_str(), &st) == 0 && static_cast<std::size_t>(st.st_size) >= when) {
              at_ = st.st_size;
              action();
              return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
          }
        }) {}
  ~DuringCopy() { end(); }
  // Ends the watch; the bytes written when the action ran, -1 when it did not.
  long long end() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return at_;
  }

 private:
  std::atomic<bool> done_{false};
  std::atomic<long long> at_{-1};
  std::thread thread_;
};

}  // namespace kd::test
