// kd: the library's operations for people and scripts.
#include <iostream>

#include "Commands.h"
#include "Output.h"
#include "log/KdLog.h"
#include "platform/Platform.h"

namespace kd::tool {
std::vector<CommandSetup>& commands() {
  static std::vector<CommandSetup> list;
  return list;
}
}  // namespace kd::tool

namespace {

int runCommand(int argc, char** argv) {
  CLI::App app{"kd: camera-card detection, locations, logs and tools of the Kd library"};
  app.name("kd");
  app.require_subcommand(1);
  app.fallthrough(false);
  app.set_version_flag("--version", std::string("kd ") + KD_VERSION, "Print kd's version and exit");
  app.footer(
      "Data goes to standard output, messages to standard error. Exit status: 0 on\n"
      "success, 1 on failure (also when the output cannot be written), 2 for a usage\n"
      "error. Failures read \"kd COMMAND: PATH: reason\". Sizes as text are binary:\n"
      "1 KB = 1024 bytes, 1 MB = 1024 KB, 1 GB = 1024 MB. See kd COMMAND --help and\n"
      "man kd.");
  for (auto setup : kd::tool::commands()) setup(app);
  if (argc > 1 && argv[1][0] != '-') {
    bool known = false;
    for (const auto* sub : app.get_subcommands({})) known = known || sub->check_name(argv[1]);
    if (!known) {
      std::cerr << "kd: unknown command '" << argv[1] << "' (see kd --help)" << std::endl;
      return 2;
    }
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::RuntimeError& e) {
    return e.get_exit_code();
  } catch (const CLI::ParseError& e) {
    std::cerr << "kd: " << e.what() << " (see kd --help)" << std::endl;
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  kd::tool::separateDataFromMessages();
  // kd says what failed in its own words. The log's troubles with itself
  // ("Unable to log the following information: ..." for every line, as root
  // with nobody at the console where there is no user log at all) are no
  // failure of the command and would repeat the library's wording.
  KdLog::setPrintsOwnTroubles(false);
  // Nor does the library's system-log line reach the user beside kd's own
  // ("kd mv: PATH: reason" after "Unable to move path ..."): the system log
  // still gets it.
  kd::setSystemLogOnStandardError(false);
  const int status = runCommand(argc, argv);
  // Data that did not reach its reader makes the command fail, unless it has
  // already failed for a reason of its own.
  if (!kd::tool::finishData() && status == 0) return 1;
  return status;
}
