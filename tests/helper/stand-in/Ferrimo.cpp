// A stand-in for the Ferrimo application: records each launch's arguments as
// one line (arguments separated by tabs) in "launches.log" beside its
// executable, then stays running for FERRIMO_STANDIN_STAY seconds (default 0).
#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n <= 0) return 1;
  exe[n] = '\0';
  std::string record(exe);
  record = record.substr(0, record.rfind('/') + 1) + "launches.log";
  std::string line;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) line += '\t';
    line += argv[i];
  }
  line += '\n';
  int fd = open(record.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return 1;
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) return 1;
  close(fd);
  if (const char* stay = std::getenv("FERRIMO_STANDIN_STAY")) sleep(std::atoi(stay));
  return 0;
}
