// kd detect: the card layout code of each volume folder given.
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "Output.h"
#include "common/Path.h"
#include "helper/FerrimoVolumeChecker.h"

namespace {

// The checker wants an absolute path whose last component is the volume's
// name, so "." or "../CARD" are resolved first. A path that cannot be
// resolved (it does not exist) is passed on as given and yields -1.
std::string absoluteVolumePath(const std::string& given) {
  char resolved[PATH_MAX];
  if (::realpath(given.c_str(), resolved)) return resolved;
  return given;
}

void setupDetect(CLI::App& app) {
  auto* cmd = app.add_subcommand("detect", "Print the camera-card layout code of each volume");
  static std::vector<std::string> volumes;
  cmd->add_option("VOLUME", volumes, "Folder where a card is mounted (such as /media/$USER/CARD)")
      ->required();
  kd::tool::addNullOption(cmd);
  cmd->footer(
      "Prints one line per volume: the layout code, a tab and the path as given.\n"
      "Codes 0 to 9 name a known card layout (see docs/cards.md); -1 means none,\n"
      "including for a folder that does not exist. Exits 0 whatever the codes.");
  cmd->callback([] {
    for (const std::string& volume : volumes) {
      kd::tool::record(
          std::to_string(FerrimoVolumeChecker::verifyVolumeType(absoluteVolumePath(volume))) +
          '\t' + volume);
    }
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupDetect);
