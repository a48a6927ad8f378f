// kd: the library's operations for people and scripts.
#include <cstdio>
#include <iostream>

#include "Commands.h"

namespace kd::tool {
std::vector<CommandSetup>& commands() {
  static std::vector<CommandSetup> list;
  return list;
}
}  // namespace kd::tool

int main(int argc, char** argv) {
  CLI::App app{"kd: camera-card detection, locations, logs and tools of the Kd library"};
  app.name("kd");
  app.require_subcommand(1);
  app.fallthrough(false);
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
