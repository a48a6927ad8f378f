// kd paths: every standard location of this user and of the machine.
#include <iostream>
#include <optional>
#include <string>

#include "Commands.h"
#include "Output.h"
#include "paths/KdLocalPaths.h"

namespace {

void print(const char* name, const char* domain, const std::optional<std::string>& path) {
  kd::tool::record(std::string(name) + '\t' + domain + '\t' + path.value_or(""));
}

void printPaths() {
  using OptPath = KdLocalPaths::OptPath;
  struct DomainOp {
    const char* name;
    OptPath (*op)(bool);
  };
  static constexpr DomainOp kDomainOps[] = {
      {"applicationDirectory", &KdLocalPaths::applicationDirectory},
      {"adminApplicationDirectory", &KdLocalPaths::adminApplicationDirectory},
      {"documentDirectory", &KdLocalPaths::documentDirectory},
      {"libraryDirectory", &KdLocalPaths::libraryDirectory},
      {"prefsDirectory", &KdLocalPaths::prefsDirectory},
      {"cacheDirectory", &KdLocalPaths::cacheDirectory},
      {"appSupportDirectory", &KdLocalPaths::appSupportDirectory},
      {"logDirectory", &KdLocalPaths::logDirectory},
  };
  for (const DomainOp& op : kDomainOps) {
    print(op.name, "user", op.op(true));
    print(op.name, "local", op.op(false));
  }
  struct PlainOp {
    const char* name;
    OptPath (*op)();
  };
  static const PlainOp kPlainOps[] = {
      {"movieDirectory", &KdLocalPaths::movieDirectory},
      {"desktopDirectory", &KdLocalPaths::desktopDirectory},
      {"systemLibraryDirectory", &KdLocalPaths::systemLibraryDirectory},
      {"localDocumentationDirectory", &KdLocalPaths::localDocumentationDirectory},
      {"darwinCacheDirectory", &KdLocalPaths::darwinCacheDirectory},
      {"userDirectory", &KdLocalPaths::userDirectory},
      {"trashDirectory", &KdLocalPaths::trashDirectory},
      {"tempDirectory", [] { return OptPath(KdLocalPaths::tempDirectory()); }},
  };
  for (const PlainOp& op : kPlainOps) print(op.name, "-", op.op());
  std::cout.flush();
}

void setupPaths(CLI::App& app) {
  auto* cmd = app.add_subcommand("paths", "Print the standard locations of this user and machine");
  kd::tool::addNullOption(cmd);
  cmd->footer(
      "One line per location: the operation's name, a tab, \"user\" or \"local\" for\n"
      "the domain (\"-\" where the operation takes none), a tab and the path (empty\n"
      "when there is none). A process running as root gets the console user's\n"
      "folders for the user domain, and none when nobody is at the console.");
  cmd->callback(printPaths);
}

}  // namespace
KD_COMMAND(setupPaths);
