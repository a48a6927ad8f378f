// kd label: read or set a file's label colour.
#include <iostream>
#include <optional>
#include <string>

#include "Commands.h"
#include "files/KdFileManager.h"
#include "platform/FileMetadata.h"

namespace {

void print(long n) {
  std::cout << n << '\t'
            << (n >= 1 && n <= 7 ? kd::kLabelColourNames[static_cast<std::size_t>(n)] : "none")
            << std::endl;
}

void setupLabel(CLI::App& app) {
  auto* cmd = app.add_subcommand("label", "Read or set the label colour of a file");
  static std::string path;
  static std::optional<int> number;
  cmd->add_option("PATH", path, "File or folder")->required();
  cmd->add_option("N", number, "Label to set: 0 (none) or 1 to 7")->check(CLI::Range(0, 7));
  cmd->footer(
      "Prints the label number, a tab and the colour's name (1 grey, 2 green,\n"
      "3 purple, 4 blue, 5 yellow, 6 red, 7 orange; 0 none), after setting it when\n"
      "N is given. Exits 1 when the path does not exist or the label cannot be set.");
  cmd->callback([] {
    if (!KdFileManager::fileExistsAtPath(path)) {
      std::cerr << "kd label: " << path << ": No such file or directory" << std::endl;
      kd::tool::exitWith(1);
    }
    if (number) {
      KdFileManager::setFinderColorIndex(*number, path);
      if (KdFileManager::finderColorIndexForPath(path) != *number) {
        std::cerr << "kd label: " << path
                  << ": cannot set the label (its file system keeps no attributes)" << std::endl;
        kd::tool::exitWith(1);
      }
    }
    print(KdFileManager::finderColorIndexForPath(path));
  });
}

}  // namespace
KD_COMMAND(setupLabel);
