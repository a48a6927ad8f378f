// kd match: expands a wildcard path pattern into the existing paths.
#include <iostream>
#include <optional>
#include <string>

#include "Commands.h"
#include "files/KdFileManager.h"

namespace {

void setupMatch(CLI::App& app) {
  auto* cmd = app.add_subcommand("match", "Print the existing paths that match a wildcard pattern");
  static std::string pattern;
  static std::string base;
  cmd->add_option("PATTERN", pattern,
                  "Path pattern; \"*\" matches any run of characters, \"?\" exactly one")
      ->required();
  auto* baseOpt =
      cmd->add_option("--base", base, "Folder the pattern is taken from (default \"/\")");
  cmd->footer(
      "Prints one path per line in the order found (folder listing order, not sorted).\n"
      "Quote the pattern so that the shell does not expand it. A pattern without \"*\"\n"
      "is printed as is (joined to the base), whether or not it exists.");
  cmd->callback([baseOpt] {
    std::optional<std::string> basePath;
    if (baseOpt->count() > 0) basePath = base;
    for (const std::string& path : KdFileManager::filesMatchingWildcardPath(pattern, basePath))
      std::cout << path << '\n';
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupMatch);
