// kd mv: move or rename a file or folder.
#include <cstdio>
#include <string>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupMv(CLI::App& app) {
  auto* cmd = app.add_subcommand("mv", "Move or rename a file or folder");
  static std::string source, destination;
  static kd::tool::RightsOptions rights;
  cmd->add_option("SOURCE", source, "File or folder to move")->required();
  cmd->add_option("DEST", destination, "Its new path (which must not exist)")->required();
  kd::tool::addRightsOptions(cmd, rights, true);
  cmd->footer(
      "Moves SOURCE to DEST, which must not exist: nothing is ever replaced. Across\n"
      "volumes the item is copied and the source removed only once the copy is\n"
      "complete. A change of letter case only (Clip.mov to clip.mov) is a rename.\n"
      "Where the user lacks the rights, kd asks for a password unless --no-auth is\n"
      "given. Exits 1 on failure.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    const bool done = kd::tool::runWithRights(
        "mv", source + " to " + destination, rights,
        [](bool shouldAuth) { return KdFileManager::moveFile(source, destination, shouldAuth); });
    // A file system without extended attributes (exFAT, FAT) cannot keep
    // labels and tags: the move is made all the same, and this says so.
    if (done)
      for (const std::string& note : KdFileManager::lastAttributesNotKept())
        kd::tool::reportAttributesNotKept("mv", note);
    KdLog::finishWriting();
    if (!done) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupMv);
