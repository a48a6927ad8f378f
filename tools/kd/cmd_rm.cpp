// kd rm: remove files and folders.
#include <string>
#include <vector>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupRm(CLI::App& app) {
  auto* cmd = app.add_subcommand("rm", "Remove files and folders");
  static std::vector<std::string> paths;
  static kd::tool::RightsOptions rights;
  cmd->add_option("PATH", paths, "Files or folders to remove")->required();
  kd::tool::addRightsOptions(cmd, rights, true);
  cmd->footer(
      "Removes each PATH and everything below it; links are removed, never followed.\n"
      "A PATH ending in \".\" or \"..\" (dir/., link/.) is refused: name the folder\n"
      "itself. Read-only folders of the user's own are removed too.\n"
      "A PATH that does not exist counts as removed. Where the user lacks the rights,\n"
      "kd asks for a password (see kd trash --help) unless --no-auth is given.\n"
      "Exits 1 when any PATH failed.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    bool allDone = true;
    for (const std::string& path : paths) {
      const bool done = kd::tool::runWithRights("rm", path, rights, [&](bool shouldAuth) {
        return KdFileManager::removeFile(path, shouldAuth);
      });
      allDone = allDone && done;
    }
    KdLog::finishWriting();
    if (!allDone) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupRm);
