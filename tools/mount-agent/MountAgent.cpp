#include "MountAgent.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

extern char** environ;

namespace kd::agent {

std::vector<MountEntry> newMounts(const std::set<int>& before, const std::vector<MountEntry>& now) {
  std::vector<MountEntry> out;
  for (const auto& m : now)
    if (!before.count(m.id)) out.push_back(m);
  return out;
}

namespace {
std::set<int> idsOf(const std::vector<MountEntry>& table) {
  std::set<int> ids;
  for (const auto& m : table) ids.insert(m.id);
  return ids;
}
}  // namespace

MountAgent::MountAgent(Options options) : options_(std::move(options)) {}

void MountAgent::enqueue(std::vector<std::string> args, const std::string& why) {
  queue_.emplace_back(std::move(args), why);
  startNextIfIdle();
}

void MountAgent::startNextIfIdle() {
  while (running_ < 0 && !queue_.empty()) {
    auto [args, why] = std::move(queue_.front());
    queue_.pop_front();
    std::vector<std::string> argv{options_.helperPath};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addchdir_np(&actions, options_.appDir.c_str());
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    // The agent blocks its stop signals; the helper must not inherit that.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    pid_t pid = -1;
    int rc = posix_spawn(&pid, options_.helperPath.c_str(), &actions, &attr, cargv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
      std::fprintf(stderr, "ferrimo-mount-agent: cannot start %s in %s: %s\n",
                   options_.helperPath.c_str(), options_.appDir.c_str(), std::strerror(rc));
      continue;
    }
    if (options_.verbose)
      std::fprintf(stderr, "ferrimo-mount-agent: %s: started helper (pid %d)\n", why.c_str(),
                   static_cast<int>(pid));
    running_ = pid;
  }
}

void MountAgent::reapIfDone(bool wait) {
  if (running_ < 0) return;
  int status = 0;
  pid_t r;
  do {
    r = waitpid(running_, &status, wait ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == running_ || (r < 0 && errno == ECHILD)) {
    running_ = -1;
    startNextIfIdle();
  }
}

int MountAgent::run(int stopFd) {
  std::unique_ptr<libmnt_monitor, void (*)(libmnt_monitor*)> monitor(mnt_new_monitor(),
                                                                     mnt_unref_monitor);
  if (!monitor || mnt_monitor_enable_kernel(monitor.get(), 1) != 0) {
    std::fprintf(stderr, "ferrimo-mount-agent: cannot watch the mount table\n");
    return 1;
  }
  int monitorFd = mnt_monitor_get_fd(monitor.get());
  if (monitorFd < 0) {
    std::fprintf(stderr, "ferrimo-mount-agent: cannot watch the mount table\n");
    return 1;
  }
  // Take the snapshot after the watch is set up so that no mount falls between.
  std::set<int> known = idsOf(readMountTable());
  if (options_.runSetup) enqueue({"-setup"}, "login");

  for (;;) {
    pollfd fds[2] = {{monitorFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
    int timeout = running_ >= 0 ? 100 : -1;  // poll children while one runs
    int n = poll(fds, 2, timeout);
    if (n < 0 && errno != EINTR) break;
    if (fds[1].revents) break;
    if (n > 0 && fds[0].revents) {
      const char* filename = nullptr;
      int type = 0;
      while (mnt_monitor_next_change(monitor.get(), &filename, &type) == 0) {
      }
      auto table = readMountTable();
      for (const auto& m : newMounts(known, table)) enqueue({}, "new mount " + m.target);
      known = idsOf(table);
    }
    reapIfDone(false);
  }
  // Let a run in progress finish: it may be launching the application.
  reapIfDone(true);
  return 0;
}

}  // namespace kd::agent
