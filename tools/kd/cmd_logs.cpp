// kd logs NAME: prints the paths of the application's logs, newest first.
#include <iostream>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "log/KdLog.h"

namespace {
void setupLogs(CLI::App& app) {
  auto* cmd = app.add_subcommand("logs", "Print the paths of an application's logs, newest first");
  static std::string name;
  cmd->add_option("NAME", name, "The application's name (the logs' base name)")->required();
  kd::tool::addNullOption(cmd);
  cmd->callback([] {
    KdLog::sharedController().setAppName(name);
    for (const std::string& path : KdLog::availableLogs()) kd::tool::record(path);
  });
}
}  // namespace
KD_COMMAND(setupLogs);
