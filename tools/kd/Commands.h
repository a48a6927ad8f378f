// The registry of kd's subcommands. Each command file defines a setup function
// that adds its subcommand to the application and registers it with
// KD_COMMAND(setupFunction). Single-threaded: used from main only.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <vector>

namespace kd::tool {

using CommandSetup = void (*)(CLI::App& app);

std::vector<CommandSetup>& commands();
inline int addCommand(CommandSetup setup) {
  commands().push_back(setup);
  return 0;
}

// Ends the command with an exit status other than 0 (CLI11 turns it into the
// process's exit status in main).
[[noreturn]] inline void exitWith(int status) {
  throw CLI::RuntimeError(status);
}

}  // namespace kd::tool

#define KD_COMMAND(setup) \
  [[maybe_unused]] static const int kd_command_registered_##setup = kd::tool::addCommand(setup)
