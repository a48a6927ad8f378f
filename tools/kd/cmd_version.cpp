// kd version: prints the library's version.
#include <iostream>

#include "Commands.h"

namespace {
void setupVersion(CLI::App& app) {
  auto* cmd = app.add_subcommand("version", "Print the version of the Kd library");
  cmd->callback([] { std::cout << KD_VERSION << "\n"; });
}
}  // namespace
KD_COMMAND(setupVersion);
