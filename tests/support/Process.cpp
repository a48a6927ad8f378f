#include "support/Process.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

#include "common/Spawn.h"
#include "common/UniqueFd.h"
#include "support/TempDir.h"

namespace kd::test {

pid_t spawn(const std::vector<std::string>& args, const SpawnOptions& options) {
  SpawnRequest request{args, options.env};
  request.workingDirectory = options.cwd;
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;
  UniqueFd out, err;
  if (!options.out.empty()) out.reset(::open(options.out.c_str(), kFlags, 0644));
  if (!options.err.empty()) err.reset(::open(options.err.c_str(), kFlags, 0644));
  if ((!options.out.empty() && !out) || (!options.err.empty() && !err)) return -1;
  request.fds = {{0, 0}, {1, out ? out.get() : 1}, {2, err ? err.get() : 2}};
  return spawnProcess(request).pid;
}

int waitFor(pid_t pid) {
  int status = 0;
  pid_t r;
  while ((r = ::waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
  }
  return r == pid ? status : -1;
}

int exitCode(int status) {
  return status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int run(const std::vector<std::string>& args, const SpawnOptions& options) {
  const pid_t pid = spawn(args, options);
  return pid > 0 ? exitCode(waitFor(pid)) : -1;
}

int runAsNobody(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
         ::setresuid(65534, 65534, 65534) != 0))
      ::_exit(kCannotDrop);
    ::_exit(body());
  }
  return pid > 0 ? exitCode(waitFor(pid)) : -1;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool processGone(int pid) {
  return waitUntil([pid] {
    const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    return stat.empty() || stat.find(") Z ") != std::string::npos;
  });
}

int countOf(std::string_view text, std::string_view what) {
  int n = 0;
  for (auto at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::vector<int> openFds() {
  std::vector<int> fds;
  DIR* dir = ::opendir("/proc/self/fd");
  while (dirent* e = dir ? ::readdir(dir) : nullptr)
    if (e->d_name[0] != '.' && std::atoi(e->d_name) != ::dirfd(dir))
      fds.push_back(std::atoi(e->d_name));
  if (dir) ::closedir(dir);
  return fds;
}

}  // namespace kd::test
