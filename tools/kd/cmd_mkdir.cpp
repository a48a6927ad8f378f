// kd mkdir: create folders and their missing parents.
#include <string>
#include <vector>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupMkdir(CLI::App& app) {
  auto* cmd = app.add_subcommand("mkdir", "Create folders and their missing parents");
  static std::vector<std::string> paths;
  static kd::tool::RightsOptions rights;
  cmd->add_option("PATH", paths, "Folders to create")->required();
  kd::tool::addRightsOptions(cmd, rights, true);
  cmd->footer(
      "Creates each folder PATH with its missing parents. A path under an unmounted\n"
      "volume is refused: /Volumes/NAME that does not exist, or a drive folder\n"
      "(/media/USER/NAME, /run/media/USER/NAME, /mnt/NAME) that is no mount point.\n"
      "Where the user lacks the rights, kd asks for a password unless --no-auth is\n"
      "given. Exits 1 when any PATH failed.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    bool allDone = true;
    for (const std::string& path : paths) {
      const bool done = kd::tool::runWithRights("mkdir", path, rights, [&](bool shouldAuth) {
        return KdFileManager::createDirectory(path, shouldAuth);
      });
      allDone = allDone && done;
    }
    KdLog::finishWriting();
    if (!allDone) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupMkdir);
