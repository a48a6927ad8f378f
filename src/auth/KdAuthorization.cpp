// The shared instance and the session of administrator rights.
#include "auth/KdAuthorization.h"

#include <sys/stat.h>
#if defined(__GLIBC__)
#include <dlfcn.h>
#include <link.h>
#endif

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>

#include "common/Path.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

constexpr char kUnableToAuthorize[] = "Unable to authorize";
constexpr char kUnableToCreate[] = "Unable to create authRef - error %d";
constexpr char kInvalidCredentials[] = "Authorization failed. Invalid username or password";

std::mutex gInstanceMutex;
KdAuthorization* gInstance = nullptr;  // guarded by gInstanceMutex; never destroyed

kd::PrivilegeService& privilege() {
  return kd::platform().privilege();
}

void systemLog(std::string_view message) {
  kd::platform().systemLog(message);
}

// The co-process runs as root: it must be an executable file that nobody but
// its owner can change or replace (neither it nor its folder writable by
// group or others).
bool isTrustworthyHelper(const std::string& path) {
  struct stat st {
  }, folder{};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 022) == 0 &&
         ::access(path.c_str(), X_OK) == 0 &&
         ::stat(kd::path::deletingLastComponent(path).c_str(), &folder) == 0 &&
         (folder.st_mode & 022) == 0;
}

// Where the installed co-process lies relative to the shared library that holds
// this code: its folder, then the way from the library folder to the program
// folder (both as installed, so that the pair holds for any prefix). None when
// this code is linked into the program itself.
std::optional<std::string> besideInstalledLibrary(const char* name) {
#if defined(__GLIBC__) && defined(KD_BINDIR_FROM_LIBDIR)
  Dl_info info{};
  link_map* object = nullptr;
  if (::dladdr1(reinterpret_cast<const void*>(&isTrustworthyHelper), &info,
                reinterpret_cast<void**>(&object), RTLD_DL_LINKMAP) == 0 ||
      !object || !object->l_name || object->l_name[0] != '/')
    return std::nullopt;  // the program's own code ("" names the program)
  char library[PATH_MAX];
  if (!::realpath(object->l_name, library)) return std::nullopt;
  // Lexically, so that the name stays the one polkit's action was written for.
  std::filesystem::path folder = std::filesystem::path(library).parent_path();
  return (folder / KD_BINDIR_FROM_LIBDIR / name).lexically_normal().string();
#else
  (void)name;
  return std::nullopt;
#endif
}

}  // namespace

KdAuthorization& KdAuthorization::sharedController() {
  return sharedController(true);
}

KdAuthorization& KdAuthorization::sharedController(bool withGUI) {
  std::lock_guard lock(gInstanceMutex);
  if (!gInstance) gInstance = new KdAuthorization(withGUI);
  return *gInstance;
}

KdAuthorization* KdAuthorization::allocate() {
  std::lock_guard lock(gInstanceMutex);
  if (gInstance) return nullptr;
  gInstance = new KdAuthorization(true);
  return gInstance;
}

KdAuthorization::KdAuthorization(bool withGUI)
    : hasGUI_(withGUI),
      // A program started with an effective user id of 0 by the holder of the
      // rights has them from the start.
      inherited_(!KdLocalPaths::isRoot() && privilege().hasInheritedRights()),
      userDirectory_(KdLocalPaths::isRoot() ? std::nullopt : KdLocalPaths::userDirectory()) {}

KdAuthorization::~KdAuthorization() {
  authEnd();
}

bool KdAuthorization::hasGUI() const {
  std::lock_guard lock(mutex_);
  return hasGUI_;
}

void KdAuthorization::setHasGUI(bool hasGUI) {
  std::lock_guard lock(mutex_);
  hasGUI_ = hasGUI;
}

std::shared_ptr<kd::PrivilegedChannel> KdAuthorization::liveChannel() {
  std::shared_ptr<kd::PrivilegedChannel> channel;
  {
    std::lock_guard lock(mutex_);
    channel = channel_;
  }
  if (!channel || channel->alive()) return channel;
  // A co-process that died is no session.
  std::lock_guard lock(mutex_);
  if (channel_ == channel) channel_.reset();
  return nullptr;
}

void KdAuthorization::replaceSession(std::shared_ptr<kd::PrivilegedChannel> channel,
                                     bool inherited) {
  std::shared_ptr<kd::PrivilegedChannel> old;
  {
    std::lock_guard lock(mutex_);
    old = std::exchange(channel_, std::move(channel));
    inherited_ = inherited;
  }
  // The old co-process is told to end and waited for here, outside the lock.
  old.reset();
}

bool KdAuthorization::isAuthorized() {
  if (KdLocalPaths::isRoot()) return true;
  {
    std::lock_guard lock(mutex_);
    if (inherited_) return true;
  }
  return liveChannel() != nullptr;
}

bool KdAuthorization::canAuthorize() {
  return hasGUI() || KdLocalPaths::isRoot();
}

KdAuthorization::OptString KdAuthorization::privilegedHelperPath() {
  static constexpr char kName[] = "kd-privileged";
  std::vector<std::string> candidates;
  // Beside the running program, then where the library is installed from, then
  // in the program folder of the running program's installation (../bin).
  auto self = kd::platform().mainBundle().executablePath;
  if (self) candidates.push_back(kd::path::append(kd::path::deletingLastComponent(*self), kName));
  if (auto installed = besideInstalledLibrary(kName)) candidates.push_back(*installed);
  if (self) {
    std::string prefix = kd::path::deletingLastComponent(kd::path::deletingLastComponent(*self));
    candidates.push_back(kd::path::append(prefix, std::string("bin/") + kName));
  }
  for (const std::string& candidate : candidates)
    if (isTrustworthyHelper(candidate)) return candidate;
  return std::nullopt;
}

bool KdAuthorization::authStart() {
  if (KdLocalPaths::isRoot() || isAuthorized()) return true;
  std::lock_guard start(startMutex_);
  if (isAuthorized()) return true;  // another thread got there first
  if (!hasGUI()) {
    systemLog(kUnableToAuthorize);
    return false;
  }
  OptString helper = privilegedHelperPath();
  if (!helper) {
    systemLog(kd::format(kUnableToCreate, ENOENT));
    return false;
  }
  kd::PrivilegeOpening opening = privilege().openInteractively(*helper);
  if (opening.failure == kd::PrivilegeFailure::NoMeans) {
    // Nobody can be asked here (no display with an agent, no askpass program).
    systemLog(kUnableToAuthorize);
    return false;
  }
  // A cancelled or refused prompt is the user's answer, not an error to log.
  replaceSession(std::move(opening.channel), false);
  return isAuthorized();
}

bool KdAuthorization::authStartWithUser(const OptString& user, const OptString& password) {
  if (KdLocalPaths::isRoot()) return true;
  if (!user || !password) return false;
  std::lock_guard start(startMutex_);
  // Starting a session ends the one there is.
  replaceSession(nullptr, false);
  auto refused = [] {
    systemLog(kInvalidCredentials);
    KdLog::appendLog(kInvalidCredentials);
    return false;
  };
  // sudo checks the password of the user running it, so the name must be the
  // process's own; the password is checked before sudo sees it, so that a
  // rule that asks for no password still never accepts a wrong one.
  if (kd::platform().userName() != *user) return refused();
  if (!privilege().checkPassword(*user, *password)) return refused();
  OptString helper = privilegedHelperPath();
  if (!helper) {
    systemLog(kd::format(kUnableToCreate, ENOENT));
    return false;
  }
  kd::PrivilegeOpening opening = privilege().openWithPassword(*helper, *password);
  if (opening.failure == kd::PrivilegeFailure::StartFailed) {
    systemLog(kd::format(kUnableToCreate, opening.error));
    return false;
  }
  if (!opening.channel) return refused();
  replaceSession(std::move(opening.channel), false);
  return true;
}

void KdAuthorization::authEnd() {
  replaceSession(nullptr, false);
}

std::int32_t KdAuthorization::authExecTask(const std::string& tool,
                                           const std::vector<std::string>& parameters, bool async) {
  struct stat st {};
  if (::stat(tool.c_str(), &st) != 0) {
    systemLog(kd::format("Unable to execute task: path %@ doesn't exist", tool));
    return -2;
  }
  if (KdLocalPaths::isRoot()) {
    if (async) {
      KdTaskEx::runTaskAndReturn(tool, parameters);
      return 0;
    }
    return KdTaskEx::terminationCodeFromTask(tool, parameters);
  }

  std::shared_ptr<kd::PrivilegedChannel> channel = session();
  if (!channel) return -1;
  kd::PrivilegedRun run = channel->run(tool, parameters, !async);
  if (run.status == -1) {
    liveChannel();  // drops the session when the co-process has gone
    return -1;
  }
  if (run.status != 0 || async) return run.status;
  return run.exitStatus;
}

std::shared_ptr<kd::PrivilegedChannel> KdAuthorization::session() {
  if (auto channel = liveChannel()) return channel;
  bool inherited = false;
  {
    std::lock_guard lock(mutex_);
    inherited = inherited_;
  }
  if (inherited) {
    std::lock_guard start(startMutex_);
    if (liveChannel()) return liveChannel();
    if (OptString helper = privilegedHelperPath()) {
      kd::PrivilegeOpening opening = privilege().openInherited(*helper);
      if (opening.channel) replaceSession(std::move(opening.channel), true);
    }
  } else {
    authStart();
  }
  return liveChannel();
}

std::optional<std::string> KdAuthorization::outputOf(const std::string& tool,
                                                     const std::vector<std::string>& arguments) {
  if (KdLocalPaths::isRoot()) return std::nullopt;  // a root process needs no help to look
  std::shared_ptr<kd::PrivilegedChannel> channel = session();
  if (!channel) return std::nullopt;
  kd::PrivilegedRun run = channel->run(tool, arguments, true);
  if (run.status != 0 || run.exitStatus != 0) return std::nullopt;
  return std::move(run.output);
}
