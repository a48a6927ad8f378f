// kd trash: move files and folders to the trash.
#include <string>
#include <vector>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupTrash(CLI::App& app) {
  auto* cmd = app.add_subcommand("trash", "Move files and folders to the trash");
  static std::vector<std::string> paths;
  static kd::tool::RightsOptions rights;
  cmd->add_option("PATH", paths, "Files or folders to trash")->required();
  kd::tool::addRightsOptions(cmd, rights, true);
  cmd->footer(
      "Moves each PATH to the desktop trash: the home trash, or for an item on another\n"
      "volume that volume's trash (.Trash-UID); never copied across volumes. A PATH\n"
      "that does not exist counts as trashed; a mount point, or a PATH ending in \".\"\n"
      "or \"..\", is refused. Where the user may not move an item, kd asks for the\n"
      "password of an administrator (the user's own, for sudo) on the terminal, or\n"
      "reads it from --password-fd, unless --no-auth is given. Exits 1 when any\n"
      "PATH failed.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    bool allDone = true;
    for (const std::string& path : paths) {
      const bool done = kd::tool::runWithRights("trash", path, rights, [&](bool shouldAuth) {
        return KdFileManager::trashFile(path, shouldAuth);
      });
      allDone = allDone && done;
    }
    KdLog::finishWriting();
    if (!allDone) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupTrash);
