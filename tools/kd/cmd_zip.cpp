// kd zip: write a zip archive of a file or folder.
#include <string>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupZip(CLI::App& app) {
  auto* cmd = app.add_subcommand("zip", "Write a zip archive of a file or folder");
  static std::string source, archive;
  static bool noParent = false;
  cmd->add_option("SOURCE", source, "File or folder to archive")->required();
  cmd->add_option("ARCHIVE", archive, "The zip archive to write")->required();
  cmd->add_flag("--no-parent", noParent,
                "Store a folder's contents as the top entries, without the folder");
  cmd->footer(
      "Writes ARCHIVE with UTF-8 names, permissions, modification times and links\n"
      "stored as links. With a folder, its name is the top entry unless --no-parent is\n"
      "given. An existing ARCHIVE is moved to the trash once the new one is complete.\n"
      "A name that is not valid UTF-8 is refused, by name, with nothing written.\n"
      "Exits 1 unless the whole archive was written.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    const bool done = KdFileManager::compressFile(source, archive, !noParent);
    KdLog::finishWriting();
    if (!done) {
      kd::tool::reportFailure("zip", source);
      kd::tool::exitWith(1);
    }
  });
}

}  // namespace
KD_COMMAND(setupZip);
