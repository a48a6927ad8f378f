// kd guard: whether paths are protected system or standard folders.
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Output.h"
#include "paths/KdLocalPaths.h"

namespace {

void setupGuard(CLI::App& app) {
  auto* cmd = app.add_subcommand("guard", "Tell whether paths are protected system folders");
  static std::vector<std::string> paths;
  static bool exact = false;
  cmd->add_option("PATH", paths, "Path to test, taken as text (not resolved)")->required();
  kd::tool::addNullOption(cmd);
  cmd->add_flag("--exact", exact,
                "Protect only the listed folders themselves, not what lies inside the system "
                "trees (what privileged commands ask)");
  cmd->footer(
      "Prints one line per path: \"protected\" or \"not protected\", a tab and the\n"
      "path as given. Exits 0 whatever the answers.");
  cmd->callback([] {
    for (const std::string& path : paths) {
      kd::tool::record(std::string(KdLocalPaths::isPathSystemDirectory(path, exact)
                                       ? "protected"
                                       : "not protected") +
                       '\t' + path);
    }
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupGuard);
