// FerrimoHelper: started by the system on every volume mount, and with
// "-setup" at login. Takes no other options; always exits with status 0.
#include "helper/FerrimoHelper.h"

int main(int argc, char** argv) {
  return FerrimoHelper::run(std::vector<std::string>(argv + 1, argv + argc));
}
