// posix_spawn with owned spawn objects and a child that gets only what it is
// given.
#include "common/Spawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <set>

#include "common/UniqueFd.h"

extern char** environ;

namespace kd {

namespace {

// The file actions and attributes of one spawn, destroyed with it.
class SpawnObjects {
 public:
  SpawnObjects() {
    actionsError_ = posix_spawn_file_actions_init(&actions_);
    attributesError_ = posix_spawnattr_init(&attributes_);
  }
  ~SpawnObjects() {
    if (actionsError_ == 0) posix_spawn_file_actions_destroy(&actions_);
    if (attributesError_ == 0) posix_spawnattr_destroy(&attributes_);
  }
  SpawnObjects(const SpawnObjects&) = delete;
  SpawnObjects& operator=(const SpawnObjects&) = delete;

  int initError() const { return actionsError_ ? actionsError_ : attributesError_; }
  posix_spawn_file_actions_t* actions() { return &actions_; }
  posix_spawnattr_t* attributes() { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int actionsError_ = 0;
  int attributesError_ = 0;
};

// The child starts with no blocked signals and default dispositions, whatever
// the launching thread blocked or this process ignores (SIGPIPE, often).
int resetSignals(posix_spawnattr_t* attributes, bool newSession) {
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int sig = 1; sig < NSIG; ++sig) {
    if (sig != SIGKILL && sig != SIGSTOP) sigaddset(&defaults, sig);
  }
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (newSession) flags |= POSIX_SPAWN_SETSID;
  if (int rc = posix_spawnattr_setsigmask(attributes, &none)) return rc;
  if (int rc = posix_spawnattr_setsigdefault(attributes, &defaults)) return rc;
  return posix_spawnattr_setflags(attributes, flags);
}

bool isOpen(int fd) {
  return ::fcntl(fd, F_GETFD) >= 0;
}

SpawnResult spawnChecked(const SpawnRequest& request) {
  if (request.argv.empty() || request.argv.front().empty()) return {-1, EINVAL};

  // Every standard stream is set; one left out is the null device.
  std::vector<ChildFd> fds;
  std::set<int> targets;
  for (const ChildFd& fd : request.fds) {
    if (fd.child < 0 || fd.parent < ChildFd::kNullDevice || !targets.insert(fd.child).second)
      return {-1, EINVAL};
    ChildFd mapped = fd;
    // Passing on a standard stream we do not have would leave the child's
    // stream closed, and its first open file would take the stream's place.
    if (mapped.child <= 2 && mapped.parent == mapped.child && !isOpen(mapped.parent))
      mapped.parent = ChildFd::kNullDevice;
    fds.push_back(mapped);
  }
  for (int stream = 0; stream <= 2; ++stream) {
    if (targets.insert(stream).second) fds.push_back({stream, ChildFd::kNullDevice});
  }
  const int highest = *targets.rbegin();

  // The actions run in order in the child: a source that is also another
  // entry's target would be overwritten before it is read, so it is read from
  // a copy above every target (close-on-exec, gone after the spawn).
  std::vector<UniqueFd> copies;
  for (ChildFd& fd : fds) {
    if (fd.parent < 0 || fd.parent == fd.child || !targets.count(fd.parent)) continue;
    UniqueFd copy(::fcntl(fd.parent, F_DUPFD_CLOEXEC, highest + 1));
    if (!copy) return {-1, errno};
    fd.parent = copy.get();
    copies.push_back(std::move(copy));
  }

  SpawnObjects spawn;
  if (int rc = spawn.initError()) return {-1, rc};
  posix_spawn_file_actions_t* actions = spawn.actions();
  for (const ChildFd& fd : fds) {
    // dup2 onto itself clears the close-on-exec flag in the child.
    int rc = fd.parent == ChildFd::kNullDevice
                 ? posix_spawn_file_actions_addopen(actions, fd.child, "/dev/null",
                                                    fd.child == 0 ? O_RDONLY : O_WRONLY, 0)
                 : posix_spawn_file_actions_adddup2(actions, fd.parent, fd.child);
    if (rc != 0) return {-1, rc};
  }
  // Nothing else of ours reaches the child, close-on-exec or not (the macOS
  // counterpart is POSIX_SPAWN_CLOEXEC_DEFAULT).
  for (int fd = 3; fd < highest; ++fd) {
    if (targets.count(fd)) continue;
    if (int rc = posix_spawn_file_actions_addclose(actions, fd)) return {-1, rc};
  }
  if (int rc = posix_spawn_file_actions_addclosefrom_np(actions, highest + 1)) return {-1, rc};
  if (!request.workingDirectory.empty()) {
    if (int rc = posix_spawn_file_actions_addchdir_np(actions, request.workingDirectory.c_str()))
      return {-1, rc};
  }
  if (int rc = resetSignals(spawn.attributes(), request.newSession)) return {-1, rc};

  // posix_spawn does not change the strings; its prototype predates const.
  std::vector<char*> argv;
  argv.reserve(request.argv.size() + 1);
  for (const std::string& a : request.argv) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  if (request.environment) {
    envp.reserve(request.environment->size() + 1);
    for (const std::string& e : *request.environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
  }

  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, argv[0], actions, spawn.attributes(), argv.data(),
                         request.environment ? envp.data() : environ);
  if (rc != 0) return {-1, rc};
  return {pid, 0};
}

}  // namespace

SpawnResult spawnProcess(const SpawnRequest& request) noexcept {
  try {
    return spawnChecked(request);
  } catch (const std::bad_alloc&) {
    return {-1, ENOMEM};
  } catch (...) {
    return {-1, EINVAL};
  }
}

}  // namespace kd
