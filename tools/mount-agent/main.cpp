// ferrimo-mount-agent: runs FerrimoHelper at login and on every new mount.
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "Journal.h"
#include "MediaHandling.h"
#include "MountAgent.h"
#include "Scope.h"
#include "common/Path.h"
#include "common/UniqueFd.h"

namespace {
std::string defaultHelper() {
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "FerrimoHelper";
  buf[n] = '\0';
  return kd::path::append(kd::path::deletingLastComponent(buf), "FerrimoHelper");
}

// $FERRIMO_APP_DIR; else the user's own application folder when it holds
// Ferrimo; else the one installed with the agent (<libexecdir>/ferrimo/
// Ferrimo.app, found from the agent's own folder) when it is there; else the
// user's folder, which the start-up warning then names.
std::string defaultAppDir() {
  if (const char* d = std::getenv("FERRIMO_APP_DIR"); d && *d) return d;
  std::string data;
  if (const char* x = std::getenv("XDG_DATA_HOME"); x && *x == '/')
    data = x;
  else if (const char* h = std::getenv("HOME"); h && *h)
    data = kd::path::append(h, ".local/share");
  else
    data = "/tmp";
  const std::string user = kd::path::append(data, "ferrimo/Ferrimo.app");
  if (::access((user + "/Contents/MacOS/Ferrimo").c_str(), X_OK) == 0) return user;
#ifdef KD_FERRIMO_APP_FROM_BINDIR
  char buf[PATH_MAX];
  const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n > 0) {
    buf[n] = '\0';
    const std::string relative = KD_FERRIMO_APP_FROM_BINDIR;
    const std::string installed =
        relative.front() == '/' ? relative
                                : kd::path::append(kd::path::deletingLastComponent(buf), relative);
    if (::access((installed + "/Contents/MacOS/Ferrimo").c_str(), X_OK) == 0) return installed;
  }
#endif
  return user;
}
// The lock lives in the user's runtime folder. Without one, in a folder of the
// user's own below /tmp: a lock file at a name anyone can predict in /tmp
// could be created first by another user to keep this user's agent from
// starting.
std::string defaultLock() {
  if (const char* r = std::getenv("XDG_RUNTIME_DIR"); r && *r == '/')
    return kd::path::append(r, "ferrimo-mount-agent.lock");
  return "/tmp/ferrimo-mount-agent-" + std::to_string(getuid()) + "/agent.lock";
}

// Makes sure the folder of a lock below /tmp is this user's private folder.
bool privateLockFolder(const std::string& lockPath, std::string& error) {
  if (!lockPath.starts_with("/tmp/")) return true;
  const std::string folder = kd::path::deletingLastComponent(lockPath);
  if (folder == "/tmp") return true;
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    error = folder + ": " + std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != getuid() ||
      (st.st_mode & 077) != 0) {
    error = folder + " is not a private folder of this user";
    return false;
  }
  return true;
}
}  // namespace

int main(int argc, char** argv) {
  // The agent starting a helper run through itself (see Scope.h).
  if (argc >= 3 && std::strcmp(argv[1], kd::agent::kInScopeArgument) == 0)
    return kd::agent::execInOwnScope(std::vector<std::string>(argv + 2, argv + argc));

  kd::agent::Options options;
  options.helperPath = defaultHelper();
  options.appDir = defaultAppDir();
  bool noSetup = false;
  bool noScope = false;
  std::string lockPath = defaultLock();
  CLI::App app{
      "Runs FerrimoHelper once at start (with -setup) and once for every new mount of\n"
      "removable media, with the Ferrimo application folder as working directory.\n"
      "Stops on SIGTERM, SIGINT or SIGHUP."};
  app.name("ferrimo-mount-agent");
  app.add_option("--helper", options.helperPath, "The helper executable")
      ->capture_default_str()
      ->check(CLI::ExistingFile);
  app.add_option(
         "--app-dir", options.appDir,
         "The Ferrimo application folder (holds Contents/MacOS/Ferrimo); "
         "default $FERRIMO_APP_DIR, else $XDG_DATA_HOME/ferrimo/Ferrimo.app when it holds Ferrimo, "
         "else the one installed beside the agent")
      ->capture_default_str();
  app.add_option("--lock", lockPath,
                 "Lock file that keeps one agent per user (the service and the autostart "
                 "entry may both start one)")
      ->capture_default_str();
  app.add_flag("--no-setup", noSetup, "Do not run the helper with -setup at start");
  app.add_flag("--no-scope", noScope,
               "Run the helper inside the agent's own control group instead of a scope of "
               "its own from the systemd user manager");
  app.set_version_flag("--version", "ferrimo-mount-agent " KD_VERSION);
  app.add_flag("-v,--verbose", options.verbose,
               "Also report the mounts that are not removable media (and start nothing)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {  // --help, --version
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "ferrimo-mount-agent: " << e.what() << " (see --help)" << std::endl;
    return 2;
  }
  options.runSetup = !noSetup;
  options.autorunNever = kd::agent::autorunNever;
  if (!noScope) options.trampoline = "/proc/self/exe";

  std::string lockError;
  if (!privateLockFolder(lockPath, lockError)) {
    std::cerr << "ferrimo-mount-agent: cannot use lock file " << lockPath << ": " << lockError
              << std::endl;
    return 1;
  }
  kd::UniqueFd lock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock) {
    std::cerr << "ferrimo-mount-agent: cannot open lock file " << lockPath << ": "
              << std::strerror(errno) << std::endl;
    return 1;
  }
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    std::cerr << "ferrimo-mount-agent: another agent is running for this user" << std::endl;
    return 0;
  }

  // Stop requests arrive as readable data on a signal descriptor.
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGHUP);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  kd::UniqueFd stop(signalfd(-1, &mask, SFD_CLOEXEC));
  if (!stop) {
    std::cerr << "ferrimo-mount-agent: cannot receive stop signals" << std::endl;
    return 1;
  }
  // Without the application every card is recognised in vain: say so once.
  const std::string ferrimo = kd::path::append(options.appDir, "Contents/MacOS/Ferrimo");
  if (access(ferrimo.c_str(), X_OK) != 0)
    kd::agent::report(kd::agent::Priority::Warning,
                      "no Ferrimo application at %s: cards are recognised but Ferrimo cannot be "
                      "started (set FERRIMO_APP_DIR or --app-dir; see ferrimo-mount-agent(1))",
                      ferrimo.c_str());
  int status = kd::agent::MountAgent(options).run(stop.get());
  return status;
}
