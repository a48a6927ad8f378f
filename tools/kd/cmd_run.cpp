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

// The status of a run that the time-out ended, as timeout(1) has it.
constexpr int kTimedOut = 124;

// The shell's form of how a tool ended: its exit status, or 128 + the signal.
int statusOf(const KdTask::Outcome& outcome) {
  switch (outcome.kind) {
    case KdTask::Outcome::Kind::Exited:
      return outcome.value;
    case KdTask::Outcome::Kind::Signalled:
      return 128 + outcome.value;
    default:
      return 1;
  }
}

void setupRun(CLI::App& app) {
  auto* cmd = app.add_subcommand("run", "Run a tool and print what it wrote");
  static double timeout = 0;
  static bool passStatus = false;
  static std::vector<std::string> command;
  auto* timeoutOpt = cmd->add_option(
      "--timeout", timeout, "Seconds (whole seconds, truncated) before the tool is terminated");
  cmd->add_flag("--status", passStatus,
                "Exit with the tool's exit status (128 + the signal when a signal ended it)");
  cmd->add_option("COMMAND", command, "The tool's path, then its arguments (after \"--\")")
      ->required()
      ->expected(1, -1);
  cmd->footer(
      "Prints the tool's standard output when it wrote any, else its standard error,\n"
      "on standard output. Waits for the tool to end.\n"
      "Exit status: 0 when the tool ran (whatever its own status; with --status, the\n"
      "tool's status), 124 when the time-out ended it, 1 when it could not be run.\n"
      "Messages (time-out, not executable) go to the log kd.1.log and to standard error.\n"
      "Example: kd run --timeout 5 -- /bin/ls -l /tmp");
  cmd->callback([timeoutOpt] {
    // The runner reports to the application log; give it one ("kd.1.log")
    // where this user has a log folder (root with nobody at the console has none).
    if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
    const std::string path = command.front();
    const KdTaskEx::Arguments args(command.begin() + 1, command.end());
    KdTaskEx::RunReport report;
    std::optional<KdTaskEx::Data> data = KdTaskEx::dataFromTaskWithReport(
        path, args, timeoutOpt->count() > 0 ? std::optional(timeout) : std::nullopt, report);
    KdLog::finishWriting();
    if (!data) kd::tool::exitWith(1);
    std::cout.write(data->data(), static_cast<std::streamsize>(data->size()));
    std::cout.flush();
    if (report.timedOut) kd::tool::exitWith(kTimedOut);
    if (passStatus && statusOf(report.outcome) != 0) kd::tool::exitWith(statusOf(report.outcome));
  });
}

}  // namespace
KD_COMMAND(setupRun);
