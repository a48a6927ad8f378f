// kd run: runs a tool through the library's task runner and prints what it
// wrote (its output, else its error text).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "common/UniqueFd.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "tasks/KdTaskEx.h"

namespace {

// The status of a run that the time-out ended, as timeout(1) has it.
constexpr int kTimedOut = 124;

// The shell's form of how a tool ended: its exit status, or 128 + the signal.
int statusOf(const KdTask::Outcome& outcome) {
  switch (outcome.kind) {
    case KdTask::Outcome::Kind::Exited:
      return outcome.value;
    case KdTask::Outcome::Kind::Signalled:
      return 128 + outcome.value;
    default:
      return 1;
  }
}

bool isExecutableFile(const std::string& path, int& error) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    error = errno;
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    error = S_ISDIR(st.st_mode) ? EISDIR : EACCES;
    return false;
  }
  if (::access(path.c_str(), X_OK) != 0) {
    error = errno;
    return false;
  }
  return true;
}

// The program that `name` names, found as execvp finds it: a name with a '/'
// is used as given; any other is looked for in the folders of PATH (the
// system's default path when PATH is unset; an empty entry is the current
// folder), and the first executable file of that name is taken. None, with
// `reason`, when there is nothing to run.
std::optional<std::string> findProgram(const std::string& name, std::string& reason) {
  int error = ENOENT;
  if (name.find('/') != std::string::npos) {
    if (isExecutableFile(name, error)) return name;
    reason = std::string("not executable (") + std::strerror(error) + ")";
    return std::nullopt;
  }
  std::string path;
  if (const char* env = ::getenv("PATH")) {
    path = env;
  } else {
    path.resize(::confstr(_CS_PATH, nullptr, 0));
    if (!path.empty()) path.resize(::confstr(_CS_PATH, path.data(), path.size()) - 1);
  }
  bool deniedSomewhere = false;
  for (std::size_t start = 0; !name.empty() && start <= path.size();) {
    std::size_t end = path.find(':', start);
    if (end == std::string::npos) end = path.size();
    std::string folder = path.substr(start, end - start);
    if (folder.empty()) folder = ".";
    const std::string candidate = folder + "/" + name;
    if (isExecutableFile(candidate, error)) return candidate;
    deniedSomewhere = deniedSomewhere || error == EACCES;
    start = end + 1;
  }
  reason = deniedSomewhere ? "not executable (Permission denied)" : "not found in PATH";
  return std::nullopt;
}

// Points file descriptor 1, where the library prints its messages in kd, at
// the null device while it lives: kd run tells a failure in its own words, and
// the library's text goes to the log only. Owns the saved descriptor; main
// thread only, around a run that has returned before it ends.
class LibraryMessagesQuiet {
 public:
  LibraryMessagesQuiet() : saved_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(stdout);
    kd::UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (saved_.valid() && null.valid()) ::dup2(null.get(), STDOUT_FILENO);
  }
  ~LibraryMessagesQuiet() {
    std::fflush(stdout);
    if (saved_.valid()) ::dup2(saved_.get(), STDOUT_FILENO);
  }
  LibraryMessagesQuiet(const LibraryMessagesQuiet&) = delete;
  LibraryMessagesQuiet& operator=(const LibraryMessagesQuiet&) = delete;

 private:
  kd::UniqueFd saved_;
};

void setupRun(CLI::App& app) {
  auto* cmd = app.add_subcommand("run", "Run a tool and print what it wrote");
  static double timeout = 0;
  static bool passStatus = false;
  static std::vector<std::string> command;
  auto* timeoutOpt = cmd->add_option(
      "--timeout", timeout, "Seconds (whole seconds, truncated) before the tool is terminated");
  cmd->add_flag("--status", passStatus,
                "Exit with the tool's exit status (128 + the signal when a signal ended it)");
  cmd->add_option("COMMAND", command,
                  "The tool (a name without '/' is looked for in PATH), then its arguments "
                  "(after \"--\")")
      ->required()
      ->expected(1, -1);
  cmd->footer(
      "Prints the tool's standard output when it wrote any, else its standard error,\n"
      "on standard output. Waits for the tool to end. A TOOL without '/' is looked\n"
      "for in the folders of PATH, as the shell does; one with '/' is run as given.\n"
      "Exit status: 0 when the tool ran (whatever its own status; with --status, the\n"
      "tool's status), 124 when the time-out ended it, 1 when it could not be run.\n"
      "Failures are told once on standard error (\"kd run: TOOL: reason\") and\n"
      "written to the log kd.1.log.\n"
      "Example: kd run --timeout 5 -- ls -l /tmp");
  cmd->callback([timeoutOpt] {
    // The runner reports to the application log; give it one ("kd.1.log")
    // where this user has a log folder (root with nobody at the console has none).
    if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
    const std::string& name = command.front();
    std::string reason;
    const std::optional<std::string> path = findProgram(name, reason);
    if (!path) {
      KdLog::appendLog("kd run: %@: %@", name, reason);
      KdLog::finishWriting();
      std::cerr << "kd run: " << name << ": " << reason << std::endl;
      kd::tool::exitWith(1);
    }
    const KdTaskEx::Arguments args(command.begin() + 1, command.end());
    KdTaskEx::RunReport report;
    std::optional<KdTaskEx::Data> data;
    {
      LibraryMessagesQuiet quiet;
      data = KdTaskEx::dataFromTaskWithReport(
          *path, args, timeoutOpt->count() > 0 ? std::optional(timeout) : std::nullopt, report);
    }
    KdLog::finishWriting();
    if (!data) {
      std::cerr << "kd run: " << name << ": could not be run (see the log kd.1.log)" << std::endl;
      kd::tool::exitWith(1);
    }
    std::cout.write(data->data(), static_cast<std::streamsize>(data->size()));
    std::cout.flush();
    if (report.timedOut) {
      std::cerr << "kd run: " << name << ": timed out after " << static_cast<long long>(timeout)
                << " s, terminated" << std::endl;
      kd::tool::exitWith(kTimedOut);
    }
    if (passStatus && statusOf(report.outcome) != 0) kd::tool::exitWith(statusOf(report.outcome));
  });
}

}  // namespace
KD_COMMAND(setupRun);
