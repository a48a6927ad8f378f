// kd unzip: extract a zip or tar archive into a folder.
#include <string>

#include "Commands.h"
#include "Rights.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

void setupUnzip(CLI::App& app) {
  auto* cmd = app.add_subcommand("unzip", "Extract a zip or tar archive into a folder");
  static std::string archive, folder;
  cmd->add_option("ARCHIVE", archive, "A zip or tar archive (also compressed)")->required();
  cmd->add_option("FOLDER", folder, "The folder to extract into")->required();
  cmd->footer(
      "Extracts ARCHIVE into a temporary folder beside FOLDER, which takes the name\n"
      "FOLDER only when everything was extracted; an existing FOLDER is then moved to\n"
      "the trash. An entry that would land outside (an absolute path, \"..\", a link\n"
      "leading out, a hard link to such a link, or a path through a link) stops it,\n"
      "with nothing written, and is named. Exits 1 on failure.");
  cmd->callback([] {
    kd::tool::openCommandLog();
    const bool done = KdFileManager::decompressFile(archive, folder);
    KdLog::finishWriting();
    if (!done) {
      kd::tool::reportFailure("unzip", archive);
      kd::tool::exitWith(1);
    }
  });
}

}  // namespace
KD_COMMAND(setupUnzip);
