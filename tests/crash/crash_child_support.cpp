#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

#include "crash/CrashChild.h"
#include "platform/Platform.h"
#include "support/ChildMode.h"

extern char** environ;

namespace kd::test {
namespace {

// Not inlined and not a tail call, so every level takes stack until the guard
// page is hit.
[[gnu::noinline]] int recurse(int depth) {
  if (depth < 0) return 0;  // never: the stack ends first
  volatile char pad[1024];
  pad[0] = static_cast<char>(depth);
  return recurse(depth + 1) + pad[0];
}

// The null store is the point: no sanitizer report before the fault.
__attribute__((no_sanitize_undefined)) void storeThroughNull() {
  volatile int* volatile p = nullptr;
  *p = 1;
}

int crashChild(const std::vector<std::string>& args) {
  if (args.size() != 3) return 2;
  kd::nativePlatform().installCrashHandler(args[1], args[0]);
  crashNow(args[2]);
  return 3;  // did not crash
}
KD_CHILD_MODE("crash", crashChild);

}  // namespace

void crashNow(const std::string& how) {
  struct rlimit noCore {};
  setrlimit(RLIMIT_CORE, &noCore);
  if (how == "null") storeThroughNull();
  if (how == "overflow") recurse(0);
  if (how == "abort") std::abort();
  if (how == "trap") __builtin_trap();
  if (how == "thread-null") std::thread(storeThroughNull).join();
}

ChildOutcome runChild(const std::string& mode, const std::vector<std::string>& childArgs) {
  ChildOutcome out;
  std::string self = selfExecutable();
  std::vector<std::string> args = {self, "--kd-child", mode};
  args.insert(args.end(), childArgs.begin(), childArgs.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), environ) != 0) return out;
  out.pid = pid;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return out;
  }
  out.signalled = WIFSIGNALED(status);
  out.signal = out.signalled ? WTERMSIG(status) : 0;
  out.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return out;
}

ChildOutcome runCrashingChild(const std::string& folder, const std::string& appName,
                              const std::string& how) {
  return runChild("crash", {folder, appName, how});
}

}  // namespace kd::test
