// kd match: expands a wildcard path pattern into the existing paths.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "files/KdFileManager.h"

namespace {

void setupMatch(CLI::App& app) {
  auto* cmd = app.add_subcommand("match", "Print the existing paths that match a wildcard pattern");
  static std::string pattern;
  static std::string base;
  cmd->add_option("PATTERN", pattern,
                  "Path pattern; \"*\" matches any run of characters, \"?\" exactly one")
      ->required();
  auto* baseOpt = cmd->add_option(
      "--base", base,
      "Folder the pattern is taken from (default: \"/\" for an absolute pattern, the "
      "current folder for a relative one)");
  kd::tool::addNullOption(cmd);
  cmd->footer(
      "Prints one path per line (NUL-terminated with --null) in the order found (folder listing "
      "order, not sorted).\n"
      "Quote the pattern so that the shell does not expand it. A pattern without \"*\"\n"
      "is printed as is (joined to the base), whether or not it exists.");
  cmd->callback([baseOpt] {
    std::optional<std::string> basePath;
    if (baseOpt->count() > 0) {
      basePath = base;
    } else if (!pattern.starts_with('/')) {
      std::vector<char> cwd(4096);
      while (!::getcwd(cwd.data(), cwd.size())) {
        if (errno != ERANGE) {
          std::cerr << "kd match: .: cannot read the current folder (" << std::strerror(errno)
                    << ")\n";
          kd::tool::exitWith(1);
        }
        cwd.resize(cwd.size() * 2);
      }
      basePath = cwd.data();
    }
    for (const std::string& path : KdFileManager::filesMatchingWildcardPath(pattern, basePath))
      kd::tool::record(path);
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupMatch);
