// Child processes, waits and process checks for tests: starting a program
// with its own environment, folder and output files, running a piece of the
// test program as the user nobody, and polling for what other threads or
// processes do. Free functions; each call owns what it starts until it
// returns (spawn hands its child to the caller).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kd::test {

struct SpawnOptions {
  std::optional<std::vector<std::string>> env = {};  // none: this process's environment
  std::string cwd = {};                              // "": this process's folder
  // Files for standard output and error, emptied first ("": inherited).
  std::string out = {};
  std::string err = {};
};

// Starts args[0] (an absolute path) with its arguments; its id, or -1.
pid_t spawn(const std::vector<std::string>& args, const SpawnOptions& options = {});
// Waits for a child; its wait status (-1 when it cannot be waited for).
int waitFor(pid_t pid);
// The exit code of a wait status; -1 when the child did not exit normally.
int exitCode(int status);
// Starts a program and waits for it; its exit code, -1 when it could not be
// started or did not exit normally.
int run(const std::vector<std::string>& args, const SpawnOptions& options = {});

// What runAsNobody gives when the child could not switch to the user nobody.
inline constexpr int kCannotDrop = 255;
// Runs `body` in a forked child, as the user nobody (uid 65534) when this
// process is root; the child's exit code (body's result), kCannotDrop when
// it could not switch, -1 when it did not exit normally.
int runAsNobody(const std::function<int()>& body);

// Polls `done` every 10 ms until it holds or `limit` has passed; whether it held.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(5));
// Whether the process has ended (or is a zombie) within five seconds.
bool processGone(int pid);
// How often `what` occurs in `text` (overlapping occurrences count).
int countOf(std::string_view text, std::string_view what);
// The open descriptors of this process, lowest first.
std::vector<int> openFds();

}  // namespace kd::test
