// Starting a child process with posix_spawn, the one way this code starts
// programs: the spawn objects are owned here and destroyed on every path, the
// child gets exactly the descriptors it is given (everything else of ours is
// closed in it, whatever its close-on-exec flag), no blocked signals and
// default dispositions. The program runs as named, never looked up in PATH or
// through a shell.
//
// Free function; any thread. The child is the caller's to wait for.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kd {

// One descriptor of the child and where it comes from.
struct ChildFd {
  static constexpr int kNullDevice = -1;
  int child = 0;             // its number in the child
  int parent = kNullDevice;  // ours, duplicated onto it; kNullDevice: /dev/null
};

struct SpawnRequest {
  // argv[0] is the program's path and the child's argv[0].
  std::vector<std::string> argv;
  // "NAME=value" entries; none: this process's environment.
  std::optional<std::vector<std::string>> environment = {};
  // The child's descriptors, each number at most once. A standard stream not
  // listed, or passed on as itself ({1, 1}) while we have none, is the null
  // device; any other descriptor of ours is closed in the child.
  std::vector<ChildFd> fds = {};
  // The child's working folder ("": ours).
  std::string workingDirectory = {};
  // A session (and so a process group) of its own: the child outlives us,
  // away from our terminal and its signals.
  bool newSession = false;
};

struct SpawnResult {
  pid_t pid = -1;  // the child, when started
  int error = 0;   // the errno value when not started
  explicit operator bool() const { return pid > 0; }
};

// Starts the program of `request`; the child's id, or the reason it was not
// started (EINVAL for an empty argv or a descriptor listed twice).
SpawnResult spawnProcess(const SpawnRequest& request) noexcept;

}  // namespace kd
