// A child process that installs the crash handler and then crashes, for the
// crash-report tests. One call per child; callable from the test thread only.
#pragma once

#include <string>

namespace kd::test {

struct CrashOutcome {
  int pid = -1;
  bool signalled = false;  // died by a signal
  int signal = 0;
  int exitCode = -1;
};

// Starts this test program as a child that installs the handler for `appName`
// with `folder`, then crashes the way `how` names: "null" (store through a null
// pointer), "overflow" (runaway recursion), "abort", "trap" (an illegal
// instruction) or "thread-null" (a null store on a second thread). Waits for it.
CrashOutcome runCrashingChild(const std::string& folder, const std::string& appName,
                              const std::string& how);

}  // namespace kd::test
