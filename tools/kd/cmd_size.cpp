// kd size: the bytes of files and folders.
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "files/KdFileManager.h"

namespace {

void setupSize(CLI::App& app) {
  auto* cmd = app.add_subcommand("size", "Print the size of files and folders");
  static std::vector<std::string> paths;
  cmd->add_option("PATH", paths, "File or folder")->required();
  cmd->footer(
      "Prints one line per path: the bytes, a tab, the size as text (\"1.50 KB\"),\n"
      "a tab and the path. A folder counts every file below it; links below it\n"
      "count as themselves and are never followed. Exits 1 when a path does not\n"
      "exist (after printing the others).");
  cmd->callback([] {
    bool missing = false;
    for (const auto& path : paths) {
      if (!KdFileManager::fileExistsAtPath(path) && !KdFileManager::isSymbolicLinkAtPath(path)) {
        std::cerr << "kd size: " << path << ": No such file or directory" << std::endl;
        missing = true;
        continue;
      }
      const auto bytes = KdFileManager::fileSize(path);
      std::cout << bytes << '\t' << KdFileManager::formatFileSize(static_cast<double>(bytes))
                << '\t' << path << '\n';
    }
    std::cout.flush();
    if (missing) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupSize);
