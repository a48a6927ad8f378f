// Child processes that crash, for the crash-report tests. Callable from the
// test thread only.
#pragma once

#include <string>
#include <vector>

namespace kd::test {

struct ChildOutcome {
  int pid = -1;
  bool signalled = false;  // died by a signal
  int signal = 0;
  int exitCode = -1;
};

// Crashes this process the way `how` names: "null" (store through a null
// pointer), "overflow" (runaway recursion), "abort", "trap" (an illegal
// instruction) or "thread-null" (a null store on a second thread). Returns
// only for an unknown name. Core files are switched off first.
void crashNow(const std::string& how);

// Starts this test program as the child of a KD_CHILD_MODE and waits for it.
ChildOutcome runChild(const std::string& mode, const std::vector<std::string>& args);

// A child that installs the crash handler for `appName` with `folder` and then
// crashes as `how` names.
ChildOutcome runCrashingChild(const std::string& folder, const std::string& appName,
                              const std::string& how);

}  // namespace kd::test
