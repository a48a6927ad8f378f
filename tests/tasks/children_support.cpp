// The behaviours the task tests start as child processes (the test program
// itself, run with "--kd-child <name> args...").
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "support/ChildMode.h"

namespace {

void writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) return;
    done += static_cast<std::size_t>(n);
  }
}

std::string pattern(std::size_t size, char seed) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>(seed + i % 23);
  return s;
}

std::string arg(const std::vector<std::string>& args, std::size_t i) {
  return i < args.size() ? args[i] : std::string();
}

// out TEXT [ERR]: writes TEXT to standard output and ERR to standard error.
int writeText(const std::vector<std::string>& args) {
  writeAll(1, arg(args, 0));
  writeAll(2, arg(args, 1));
  return 0;
}
KD_CHILD_MODE("write", writeText);

// err TEXT: standard error only.
int writeError(const std::vector<std::string>& args) {
  writeAll(2, arg(args, 0));
  return 0;
}
KD_CHILD_MODE("err", writeError);

// big OUT_BYTES ERR_BYTES: the error stream first, then output, so that a
// reader that waits for output before touching error would stall.
int writeBig(const std::vector<std::string>& args) {
  writeAll(2, pattern(std::stoul(arg(args, 1)), 'a'));
  writeAll(1, pattern(std::stoul(arg(args, 0)), 'A'));
  return 0;
}
KD_CHILD_MODE("big", writeBig);

// exit CODE
int exitWith(const std::vector<std::string>& args) {
  return std::stoi(arg(args, 0));
}
KD_CHILD_MODE("exit", exitWith);

// sleep SECONDS [ignore-term]: says "started", then sleeps.
int sleepFor(const std::vector<std::string>& args) {
  if (arg(args, 1) == "ignore-term") ::signal(SIGTERM, SIG_IGN);
  writeAll(1, "started\n");
  std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(arg(args, 0))));
  writeAll(1, "late\n");
  return 0;
}
KD_CHILD_MODE("sleep", sleepFor);

// orphan SECONDS: leaves a process behind that keeps standard output open.
int leaveOrphan(const std::vector<std::string>& args) {
  writeAll(1, "parent\n");
  if (::fork() == 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(arg(args, 0))));
    ::_exit(0);
  }
  return 0;
}
KD_CHILD_MODE("orphan", leaveOrphan);

// pidfile PATH SECONDS: writes its process id to PATH, then sleeps.
int writePid(const std::vector<std::string>& args) {
  {
    std::ofstream out(arg(args, 0) + ".tmp");
    out << ::getpid();
  }
  std::rename((arg(args, 0) + ".tmp").c_str(), arg(args, 0).c_str());
  std::this_thread::sleep_for(std::chrono::duration<double>(std::stod(arg(args, 1))));
  return 0;
}
KD_CHILD_MODE("pidfile", writePid);

// fds: the child's open descriptors, one per line.
int listFds(const std::vector<std::string>&) {
  DIR* dir = ::opendir("/proc/self/fd");
  if (!dir) return 1;
  std::string out;
  while (dirent* e = ::readdir(dir)) {
    if (e->d_name[0] == '.' || std::atoi(e->d_name) == ::dirfd(dir)) continue;
    out += std::string(e->d_name) + "\n";
  }
  ::closedir(dir);
  writeAll(1, out);
  return 0;
}
KD_CHILD_MODE("fds", listFds);

// stdin: how many bytes standard input gave before its end.
int countInput(const std::vector<std::string>&) {
  char buf[4096];
  std::size_t total = 0;
  ssize_t n;
  while ((n = ::read(0, buf, sizeof buf)) > 0) total += static_cast<std::size_t>(n);
  writeAll(1, std::to_string(total));
  return 0;
}
KD_CHILD_MODE("stdin", countInput);

// env NAME: the variable's value, or "<unset>".
int printEnv(const std::vector<std::string>& args) {
  const char* v = std::getenv(arg(args, 0).c_str());
  writeAll(1, v ? v : "<unset>");
  return 0;
}
KD_CHILD_MODE("env", printEnv);

// chunks N: N lines, one write each, a little apart.
int writeChunks(const std::vector<std::string>& args) {
  int n = std::stoi(arg(args, 0));
  for (int i = 0; i < n; ++i) {
    writeAll(1, "line " + std::to_string(i) + "\n");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return 0;
}
KD_CHILD_MODE("chunks", writeChunks);

}  // namespace
