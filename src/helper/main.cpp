// FerrimoHelper: started by the system on every volume mount, and with
// "-setup" at login. Takes no other options; always exits with status 0.
// Asked by a person, "--help" or "--version" as the only argument answers and
// starts no run (the system never starts it so).
#include <cstdio>
#include <string_view>

#include "helper/FerrimoHelper.h"

namespace {
constexpr char kUsage[] =
    "Usage: FerrimoHelper [-setup]\n"
    "Started once for every volume mount (no argument) and with -setup at login,\n"
    "normally by ferrimo-mount-agent, with the Ferrimo application folder as its\n"
    "working directory. On a mount it starts Ferrimo for a freshly mounted camera\n"
    "card; -setup records the time and the mounted volumes. Always exits 0; see\n"
    "the log (kd logs FerrimoHelper) and FerrimoHelper(1).\n";
}  // namespace

int main(int argc, char** argv) {
  if (argc == 2) {
    const std::string_view only = argv[1];
    if (only == "--version") {
      std::fputs("FerrimoHelper " KD_VERSION "\n", stdout);
      return 0;
    }
    if (only == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    }
  }
  return FerrimoHelper::run(std::vector<std::string>(argv + 1, argv + argc));
}
