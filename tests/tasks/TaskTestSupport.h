// Shared pieces of the task tests: arguments that start the test program as a
// child, the text of the application log, and polling for what happens on
// other threads or in other processes.
//
// The log is written below a temporary home of a platform that answers as a
// normal (not root) macOS user would, installed for the whole test program.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildMode.h"
#include "support/Process.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {

// {"--kd-child", mode, args...}.
inline KdTaskEx::Arguments childArgs(const std::string& mode, std::vector<std::string> args = {}) {
  args.insert(args.begin(), {"--kd-child", mode});
  return args;
}

// `size` bytes of a pattern that starts at `seed`.
std::string pattern(std::size_t size, char seed);

// Everything logged so far (waits for the log writer first).
std::string logText();

// Seconds since `start`.
inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Polls `done` for up to 20 s.
inline bool eventually(const std::function<bool()>& done) {
  return waitUntil(done, std::chrono::seconds(20));
}

}  // namespace kd::test
