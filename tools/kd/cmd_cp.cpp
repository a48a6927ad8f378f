// kd cp: copy a file or folder to a new path.
#include <cstdio>
#include <string>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupCp(CLI::App& app) {
  auto* cmd = app.add_subcommand("cp", "Copy a file or folder to a new path");
  static std::string source, destination;
  static kd::tool::RightsOptions rights;
  cmd->add_option("SOURCE", source, "File or folder to copy")->required();
  cmd->add_option("DEST", destination, "Its new path (which must not exist)")->required();
  kd::tool::addRightsOptions(cmd, rights, true);
  cmd->footer(
      "Copies SOURCE to DEST, which must not exist: nothing is ever replaced. A folder\n"
      "is copied with everything below it; links stay links, permissions,\n"
      "modification times and extended attributes (labels, tags) are kept; those the\n"
      "destination cannot hold are named on standard error. The copy takes its name\n"
      "only when complete.\n"
      "Where the user lacks the rights, kd asks for a password unless --no-auth is\n"
      "given. Exits 1 on failure.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    const bool done = kd::tool::runWithRights(
        "cp", source + " to " + destination, rights,
        [](bool shouldAuth) { return KdFileManager::copyFile(source, destination, shouldAuth); });
    // A file system without extended attributes (exFAT, FAT) cannot keep
    // labels and tags: the copy is made all the same, and this says so.
    if (done)
      for (const std::string& note : KdFileManager::lastAttributesNotKept())
        kd::tool::reportAttributesNotKept("cp", note);
    KdLog::finishWriting();
    if (!done) kd::tool::exitWith(1);
  });
}

}  // namespace
KD_COMMAND(setupCp);
