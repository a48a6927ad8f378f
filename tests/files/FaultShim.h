// Running a program under test with the test-only I/O fault library
// preloaded (tests/files/shim/read_fault.c), for tests of kd's commands.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "support/TempDir.h"

namespace kd::test {

// A fault for the preloaded library: `call` on `path` from `after` bytes on.
struct Fault {
  std::string call, kind, path;
  std::size_t after = 0;
};

inline std::string faultEnvironment(const Fault& f) {
  return "ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD='" KD_READ_FAULT_SHIM
         "' KD_FAULT_CALL=" +
         f.call + " KD_FAULT=" + f.kind + " KD_FAULT_PATH='" + f.path +
         "' KD_FAULT_AFTER=" + std::to_string(f.after);
}

// Runs `program` with the fault in `tmp`, its home there too; the exit status
// (-1 when killed or timed out), standard output and error.
inline int runWithFault(const TempDir& tmp, const Fault& fault, const std::string& program,
                        std::string& out, std::string& err) {
  const std::string command = "cd '" + tmp.path() + "' && HOME='" + tmp.path() + "/home' " +
                              faultEnvironment(fault) + " timeout 60 " + program + " >out 2>err";
  const int status = std::system(command.c_str());
  out = readFile(tmp / "out");
  err = readFile(tmp / "err");
  return WIFEXITED(status) && WEXITSTATUS(status) != 124 ? WEXITSTATUS(status) : -1;
}

}  // namespace kd::test
