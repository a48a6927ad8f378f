// Lets a test program run itself as a child process: a test registers a named
// behaviour with KD_CHILD_MODE, then starts its own executable
// (kd::test::selfExecutable()) with the arguments "--kd-child" and the name (and
// any further arguments). main() runs the behaviour instead of the tests and
// exits with its result.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kd::test {

using ChildMain = int (*)(const std::vector<std::string>& args);

int registerChildMode(const char* name, ChildMain fn);
// Runs the named behaviour when argv asks for one; returns -1 otherwise.
int runChildModeIfAsked(int argc, char** argv, bool* ran);
// Absolute path of the running test program.
std::string selfExecutable();

}  // namespace kd::test

#define KD_CHILD_MODE(name, fn) \
  [[maybe_unused]] static const int kd_child_mode_##fn = kd::test::registerChildMode(name, fn)
