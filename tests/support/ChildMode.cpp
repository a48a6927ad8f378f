#include "support/ChildMode.h"

#include <limits.h>
#include <unistd.h>

#include <cstring>
#include <map>

namespace kd::test {

namespace {
std::map<std::string, ChildMain>& modes() {
  static std::map<std::string, ChildMain> m;
  return m;
}
}  // namespace

int registerChildMode(const char* name, ChildMain fn) {
  modes()[name] = fn;
  return 0;
}

int runChildModeIfAsked(int argc, char** argv, bool* ran) {
  *ran = false;
  if (argc < 3 || std::strcmp(argv[1], "--kd-child") != 0) return -1;
  auto it = modes().find(argv[2]);
  *ran = true;
  if (it == modes().end()) return 127;
  std::vector<std::string> args(argv + 3, argv + argc);
  return it->second(args);
}

std::string selfExecutable() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return {};
  return std::string(buf, static_cast<std::size_t>(n));
}

}  // namespace kd::test
