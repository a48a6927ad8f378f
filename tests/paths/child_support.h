// Runs this test program as a child (see support/ChildMode.h) and collects
// what it prints. Single-threaded use from a test.
#pragma once

#include <string>
#include <vector>

namespace kd::test {

struct ChildRun {
  int status = -1;  // exit status; -1 when it did not start or was killed
  std::string out;  // standard output
};

// Runs child mode `mode` with `args`; `env` replaces the environment when given.
ChildRun runChildMode(const std::string& mode, const std::vector<std::string>& args,
                      const std::vector<std::string>* env = nullptr);

}  // namespace kd::test
