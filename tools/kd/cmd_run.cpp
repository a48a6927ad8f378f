// kd run: runs a tool through the library's task runner and prints what it
// wrote (its output, else its error text).
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "tasks/KdTaskEx.h"

namespace {

void setupRun(CLI::App& app) {
  auto* cmd = app.add_subcommand("run", "Run a tool and print what it wrote");
  static double timeout = 0;
  static std::vector<std::string> command;
  auto* timeoutOpt = cmd->add_option(
      "--timeout", timeout, "Seconds (whole seconds, truncated) before the tool is terminated");
  cmd->add_option("COMMAND", command, "The tool's path, then its arguments (after \"--\")")
      ->required()
      ->expected(1, -1);
  cmd->footer(
      "Prints the tool's standard output when it wrote any, else its standard error.\n"
      "Exits 0 when the tool ran (whatever its own status), 1 when it could not be run.\n"
      "Messages (time-out, not executable) go to the log kd.1.log and to standard output.\n"
      "Example: kd run --timeout 5 -- /bin/ls -l /tmp");
  cmd->callback([timeoutOpt] {
    // The runner reports to the application log; give it one ("kd.1.log")
    // where this user has a log folder (root with nobody at the console has none).
    if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
    const std::string path = command.front();
    const KdTaskEx::Arguments args(command.begin() + 1, command.end());
    std::optional<KdTaskEx::Data> data = timeoutOpt->count() > 0
                                             ? KdTaskEx::dataFromTask(path, args, timeout)
                                             : KdTaskEx::dataFromTask(path, args, nullptr);
    KdLog::finishWriting();
    if (!data) kd::tool::exitWith(1);
    std::cout.write(data->data(), static_cast<std::streamsize>(data->size()));
    std::cout.flush();
  });
}

}  // namespace
KD_COMMAND(setupRun);
