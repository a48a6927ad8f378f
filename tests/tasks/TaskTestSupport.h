// Shared pieces of the task tests: arguments that start the test program as a
// child, and the text of the application log.
//
// The log is written below a temporary home of a platform that answers as a
// normal (not root) macOS user would, installed for the whole test program.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "support/ChildMode.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {

// {"--kd-child", mode, args...}.
inline KdTaskEx::Arguments childArgs(const std::string& mode, std::vector<std::string> args = {}) {
  args.insert(args.begin(), {"--kd-child", mode});
  return args;
}

// Everything logged so far (waits for the log writer first).
std::string logText();

// Seconds since `start`.
inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The open descriptors of this process.
std::vector<int> openFds();

}  // namespace kd::test
