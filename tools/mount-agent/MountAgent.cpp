#include "MountAgent.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Journal.h"
#include "Scope.h"
#include "common/Spawn.h"

namespace kd::agent {

namespace {

// The never-reused id of `mount`, or 0 when the kernel has none or another
// mount lies on top of it at its mount point. Asked only for removable media,
// never of network mounts that could stall.
std::uint64_t uniqueMountId(const MountEntry& mount) {
#ifndef STATX_MNT_ID_UNIQUE
  constexpr unsigned kUniqueId = 0x00004000U;  // the kernel's STATX_MNT_ID_UNIQUE
#else
  constexpr unsigned kUniqueId = STATX_MNT_ID_UNIQUE;
#endif
  constexpr int kFlags = AT_NO_AUTOMOUNT | AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC;
  struct statx top {};
  if (::statx(AT_FDCWD, mount.target.c_str(), kFlags, STATX_MNT_ID, &top) != 0 ||
      !(top.stx_mask & STATX_MNT_ID) || top.stx_mnt_id != static_cast<std::uint64_t>(mount.id))
    return 0;
  struct statx unique {};
  if (::statx(AT_FDCWD, mount.target.c_str(), kFlags, kUniqueId, &unique) != 0 ||
      !(unique.stx_mask & kUniqueId))
    return 0;
  return unique.stx_mnt_id;
}

}  // namespace

MountKey keyOf(const MountEntry& mount) {
  return {mount.id, mount.device, mount.target, mount.fsType,
          isRemovableMedia(mount) ? uniqueMountId(mount) : 0};
}

std::vector<MountEntry> newMounts(const std::set<MountKey>& before,
                                  const std::vector<MountEntry>& now) {
  std::vector<MountEntry> out;
  for (const auto& m : now)
    if (!before.count(keyOf(m))) out.push_back(m);
  return out;
}

std::string describeEnd(int waitStatus) {
  if (WIFEXITED(waitStatus)) return "status " + std::to_string(WEXITSTATUS(waitStatus));
  if (WIFSIGNALED(waitStatus)) {
    const char* name = sigabbrev_np(WTERMSIG(waitStatus));
    return std::string("signal ") +
           (name ? std::string("SIG") + name : std::to_string(WTERMSIG(waitStatus)));
  }
  return "an unknown state";
}

namespace {
std::set<MountKey> keysOf(const std::vector<MountEntry>& table) {
  std::set<MountKey> keys;
  for (const auto& m : table) keys.insert(keyOf(m));
  return keys;
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
    if (!options_.trampoline.empty())
      argv = {options_.trampoline, kInScopeArgument, options_.helperPath};
    argv.insert(argv.end(), args.begin(), args.end());
    // Input on the null device, our output and error (the journal) passed
    // on; the agent blocks its stop signals, which spawnProcess does not pass on.
    SpawnRequest request{std::move(argv)};
    request.fds = {{STDOUT_FILENO, STDOUT_FILENO}, {STDERR_FILENO, STDERR_FILENO}};
    request.workingDirectory = options_.appDir;
    const SpawnResult child = spawnProcess(request);
    if (!child) {
      report(Priority::Error, "%s: cannot start %s in %s: %s", why.c_str(),
             options_.helperPath.c_str(), options_.appDir.c_str(), std::strerror(child.error));
      continue;
    }
    const pid_t pid = child.pid;
    report(Priority::Info, "%s: started the helper (pid %d)", why.c_str(), static_cast<int>(pid));
    running_ = pid;
    runningWhy_ = why;
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
    if (r != running_) {
      report(Priority::Warning, "%s: the helper (pid %d) ended unseen", runningWhy_.c_str(),
             static_cast<int>(running_));
    } else {
      // The helper always ends with status 0; anything else is a failure.
      const bool clean = WIFEXITED(status) && WEXITSTATUS(status) == 0;
      report(clean ? Priority::Info : Priority::Error, "%s: the helper (pid %d) ended with %s",
             runningWhy_.c_str(), static_cast<int>(running_), describeEnd(status).c_str());
    }
    running_ = -1;
    startNextIfIdle();
  }
}

int MountAgent::run(int stopFd) {
  std::unique_ptr<libmnt_monitor, void (*)(libmnt_monitor*)> monitor(mnt_new_monitor(),
                                                                     mnt_unref_monitor);
  if (!monitor || mnt_monitor_enable_kernel(monitor.get(), 1) != 0) {
    report(Priority::Error, "cannot watch the mount table");
    return 1;
  }
  int monitorFd = mnt_monitor_get_fd(monitor.get());
  if (monitorFd < 0) {
    report(Priority::Error, "cannot watch the mount table");
    return 1;
  }
  // Take the snapshot after the watch is set up so that no mount falls between.
  std::set<MountKey> known = keysOf(readMountTable());
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
      // Only removable media can be cards: desktop, container and system
      // mounts would rotate the helper's logs away and could start Ferrimo
      // again for a card that is still mounted.
      for (const auto& m : newMounts(known, table)) {
        if (!isRemovableMedia(m)) {
          if (options_.verbose)
            report(Priority::Info, "new mount %s is not removable media: ignored",
                   m.target.c_str());
        } else if (options_.autorunNever && options_.autorunNever()) {
          // The user's choice for every program on insertion, Ferrimo included.
          report(Priority::Notice,
                 "new removable volume %s: the desktop is set to never start programs on "
                 "media insertion (autorun-never): Ferrimo is not started",
                 m.target.c_str());
        } else {
          enqueue({}, "new removable volume " + m.target);
        }
      }
      known = keysOf(table);
    }
    reapIfDone(false);
  }
  // Let a run in progress finish: it may be launching the application.
  reapIfDone(true);
  return 0;
}

}  // namespace kd::agent
