#include <fcntl.h>
#include <security/pam_appl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "common/Spawn.h"
#include "common/ThreadAnnotations.h"
#include "platform/linux/GuardedFiles.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxPrivilege.h"
#include "platform/linux/PrivilegedWire.h"

namespace kd {

static_assert(std::string_view(kGuardedRemove) == wire::kRemove);
static_assert(std::string_view(kGuardedRename) == wire::kRename);

namespace {

void wipe(std::string& secret) {
  explicit_bzero(secret.data(), secret.size());
  secret.clear();
}

// Writes to a pipe whose reader may have gone, without letting SIGPIPE end
// this process: the signal is blocked for this thread and a pending one that
// the write raised is taken back.
bool writeToPipe(int fd, std::string_view data) {
  sigset_t pipeOnly, previous;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
  bool ok = wire::writeAll(fd, data);
  if (!ok && errno == EPIPE) {
    timespec none{};
    sigtimedwait(&pipeOnly, nullptr, &none);
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return ok;
}

// Waits a little for a launcher that has been told to end, then leaves the
// rest to a background waiter so that it never stays a zombie.
void reap(pid_t pid) {
  if (pid <= 0) return;
  for (int i = 0; i < 500; ++i) {
    pid_t r = retryOnEintr([&] { return ::waitpid(pid, nullptr, WNOHANG); });
    if (r != 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::thread([pid] { retryOnEintr([&] { return ::waitpid(pid, nullptr, 0); }); }).detach();
}

// While a session is held the process is not dumpable: its /proc entries
// (fd, mem, environ) belong to root, so that another process of the same user
// can neither open the session's pipes through /proc/<pid>/fd nor read its
// secret from memory. The state before the first session comes back after the
// last. Process-wide; any thread.
class Undumpable {
 public:
  Undumpable() {
    std::lock_guard lock(mutex());
    if (count()++ == 0) {
      before() = ::prctl(PR_GET_DUMPABLE, 0, 0, 0, 0);
      ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    }
  }
  ~Undumpable() {
    std::lock_guard lock(mutex());
    if (--count() == 0 && before() > 0) ::prctl(PR_SET_DUMPABLE, before(), 0, 0, 0);
  }
  Undumpable(const Undumpable&) = delete;
  Undumpable& operator=(const Undumpable&) = delete;

 private:
  static std::mutex& mutex() {
    static std::mutex m;
    return m;
  }
  static int& count() {  // guarded by mutex()
    static int n = 0;
    return n;
  }
  static int& before() {  // guarded by mutex()
    static int b = 0;
    return b;
  }
};

// The co-process and the launcher that started it (sudo, pkexec, or the
// co-process itself), the session's secret, and the process's undumpable
// state while it lives. Requests are served one at a time under `mutex_`.
class CoProcess final : public PrivilegedChannel {
 public:
  CoProcess(pid_t launcher, UniqueFd toChild, UniqueFd fromChild, int helperPid, std::string secret,
            std::unique_ptr<Undumpable> undumpable)
      : launcher_(launcher),
        toChild_(std::move(toChild)),
        fromChild_(std::move(fromChild)),
        helperPid_(helperPid),
        secret_(std::move(secret)),
        undumpable_(std::move(undumpable)) {}
  ~CoProcess() override {
    MutexLock lock(mutex_);
    endLocked();
  }

  PrivilegedRun run(const std::string& tool, const std::vector<std::string>& arguments,
                    bool wait) override {
    MutexLock lock(mutex_);
    if (!toChild_) return {};
    wire::Request request;
    request.secret = secret_;
    request.wait = wait;
    request.argv.reserve(arguments.size() + 1);
    request.argv.push_back(tool);
    request.argv.insert(request.argv.end(), arguments.begin(), arguments.end());
    std::string body = wire::encodeRequest(request);
    wipe(request.secret);
    std::string frame;
    wire::putU32(frame, static_cast<std::uint32_t>(body.size()));
    frame += body;
    wipe(body);
    std::optional<wire::Reply> reply;
    const bool sent = writeToPipe(toChild_.get(), frame);
    wipe(frame);
    if (sent) {
      if (auto answer = wire::readFrame(fromChild_.get())) reply = wire::decodeReply(*answer);
    }
    if (!reply) {
      endLocked();
      return {};
    }
    return {reply->status, reply->exitStatus, std::move(reply->output), std::move(reply->error)};
  }

  bool alive() override {
    // A request in progress answers for itself when it ends; meanwhile the
    // co-process counts as alive, and nobody waits for the request here.
    if (!mutex_.try_lock()) return true;
    const bool answer = aliveLocked();
    mutex_.unlock();
    return answer;
  }

  int coProcessId() const override { return helperPid_; }

 private:
  bool aliveLocked() KD_REQUIRES(mutex_) {
    if (!toChild_) return false;
    // Between requests the co-process says nothing: anything readable means
    // it has ended (or broken the conversation).
    pollfd p{fromChild_.get(), POLLIN, 0};
    if (retryOnEintr([&] { return ::poll(&p, 1, 0); }) != 0) {
      endLocked();
      return false;
    }
    return true;
  }

  void endLocked() KD_REQUIRES(mutex_) {
    if (launcher_ <= 0) return;
    // Closing its input ends the co-process; the launcher follows it.
    toChild_.reset();
    fromChild_.reset();
    reap(launcher_);
    launcher_ = 0;
    wipe(secret_);
    undumpable_.reset();
  }

  Mutex mutex_;
  pid_t launcher_ KD_GUARDED_BY(mutex_);
  UniqueFd toChild_ KD_GUARDED_BY(mutex_);
  UniqueFd fromChild_ KD_GUARDED_BY(mutex_);
  const int helperPid_;
  std::string secret_ KD_GUARDED_BY(mutex_);
  std::unique_ptr<Undumpable> undumpable_ KD_GUARDED_BY(mutex_);
};

struct Launched {
  pid_t pid = 0;
  UniqueFd toChild;
  UniqueFd fromChild;
  int error = 0;
};

// Starts `argv` in a session of its own with its input and output on new
// pipes and its error on the null device; no other descriptor reaches it.
Launched launch(const std::vector<std::string>& argv) {
  Launched out;
  int in[2], back[2];
  if (::pipe2(in, O_CLOEXEC) != 0) {
    out.error = errno;
    return out;
  }
  UniqueFd inRead(in[0]), inWrite(in[1]);
  if (::pipe2(back, O_CLOEXEC) != 0) {
    out.error = errno;
    return out;
  }
  UniqueFd backRead(back[0]), backWrite(back[1]);

  SpawnRequest request{argv};
  request.fds = {{STDIN_FILENO, inRead.get()}, {STDOUT_FILENO, backWrite.get()}};
  request.newSession = true;
  const SpawnResult child = spawnProcess(request);
  if (!child) {
    out.error = child.error;
    return out;
  }
  out.pid = child.pid;
  out.toChild = std::move(inWrite);
  out.fromChild = std::move(backRead);
  return out;
}

// Starts the launcher, hands over the password (when there is one), and holds
// the start conversation with the co-process.
PrivilegeOpening start(const std::vector<std::string>& argv, std::string* password, int timeoutMs,
                       bool requireRoot) {
  PrivilegeOpening opening;
  // Undumpable before the pipes exist, so that they are never open to others.
  auto undumpable = std::make_unique<Undumpable>();
  std::optional<std::string> secret = wire::randomBytes(wire::kSecretBytes);
  if (!secret) {
    if (password) wipe(*password);
    opening.failure = PrivilegeFailure::StartFailed;
    opening.error = errno;
    return opening;
  }
  Launched child = launch(argv);
  if (child.pid == 0) {
    wipe(*secret);
    if (password) wipe(*password);
    opening.failure = PrivilegeFailure::StartFailed;
    opening.error = child.error;
    return opening;
  }
  auto refuse = [&] {
    wipe(*secret);
    child.toChild.reset();
    child.fromChild.reset();
    reap(child.pid);
    opening.failure = PrivilegeFailure::Refused;
    return std::move(opening);
  };
  if (password) {
    std::string line = *password + "\n";
    wipe(*password);
    bool sent = writeToPipe(child.toChild.get(), line);
    wipe(line);
    if (!sent) return refuse();
  }
  if (!wire::waitReadable(child.fromChild.get(), timeoutMs)) return refuse();
  std::optional<std::string> hello = wire::readLine(child.fromChild.get());
  long helperPid = 0, euid = -1;
  std::string nonce;
  {
    if (!hello || hello->rfind(std::string(wire::kHello) + " ", 0) != 0) return refuse();
    char* end = nullptr;
    const char* text = hello->c_str() + sizeof wire::kHello;
    helperPid = std::strtol(text, &end, 10);
    if (end == text || *end != ' ') return refuse();
    euid = std::strtol(end + 1, &end, 10);
    if (*end != ' ' || helperPid <= 0) return refuse();
    nonce = end + 1;
    if (!wire::fromHex(nonce, wire::kNonceBytes)) return refuse();
  }
  if (requireRoot && euid != 0) return refuse();
  // The co-process's own nonce marks the line apart from anything a password
  // could say; the secret then goes with every request.
  std::string sync = std::string(wire::kSync) + " " + nonce + " " + wire::toHex(*secret) + "\n";
  const bool synced = writeToPipe(child.toChild.get(), sync);
  wipe(sync);
  if (!synced || !wire::waitReadable(child.fromChild.get(), 10000)) return refuse();
  std::optional<std::string> ready = wire::readLine(child.fromChild.get());
  if (!ready || *ready != wire::kReady) return refuse();
  opening.channel = std::make_unique<CoProcess>(
      child.pid, std::move(child.toChild), std::move(child.fromChild), static_cast<int>(helperPid),
      std::move(*secret), std::move(undumpable));
  return opening;
}

// Answers PAM's questions: the password for hidden prompts; messages are
// ignored; a visible prompt (a question we cannot answer) fails.
int answerPam(int count, const pam_message** messages, pam_response** responses, void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const std::string& password = *static_cast<const std::string*>(data);
  auto* replies = static_cast<pam_response*>(std::calloc(count, sizeof(pam_response)));
  if (!replies) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        replies[i].resp = strdup(password.c_str());
        if (replies[i].resp) break;
        [[fallthrough]];
      case PAM_PROMPT_ECHO_ON:
        for (int j = 0; j < count; ++j) {
          if (replies[j].resp) {
            explicit_bzero(replies[j].resp, std::strlen(replies[j].resp));
            std::free(replies[j].resp);
          }
        }
        std::free(replies);
        return PAM_CONV_ERR;
      default:
        break;
    }
  }
  *responses = replies;
  return PAM_SUCCESS;
}

bool hasText(const char* name) {
  const char* v = std::getenv(name);
  return v && *v;
}

}  // namespace

bool LinuxPrivilege::hasInheritedRights() {
  return ::geteuid() == 0 && ::getuid() != 0;
}

bool LinuxPrivilege::checkPassword(const std::string& user, const std::string& password) {
  if (user.empty() || password.find('\0') != std::string::npos) return false;
  pam_conv conversation{&answerPam, const_cast<std::string*>(&password)};
  pam_handle_t* handle = nullptr;
  if (pam_start(config_.pamService.c_str(), user.c_str(), &conversation, &handle) != PAM_SUCCESS)
    return false;
  int rc = pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
  pam_end(handle, rc);
  return rc == PAM_SUCCESS;
}

PrivilegeOpening LinuxPrivilege::openWithPassword(const std::string& helperPath,
                                                  const std::string& password) {
  // sudo reads the password up to the line end: a password holding one cannot
  // be handed over whole.
  if (password.find_first_of(std::string("\n\0", 2)) != std::string::npos) {
    PrivilegeOpening refused;
    refused.failure = PrivilegeFailure::Refused;
    return refused;
  }
  std::string secret = password;
  PrivilegeOpening opening = start({config_.sudo, "-k", "-S", "-p", "", "--", helperPath}, &secret,
                                   config_.passwordStartTimeoutMs, config_.requireRoot);
  wipe(secret);
  return opening;
}

PrivilegeOpening LinuxPrivilege::openInteractively(const std::string& helperPath) {
  const bool display = hasText("DISPLAY") || hasText("WAYLAND_DISPLAY");
  if (display && ::access(config_.pkexec.c_str(), X_OK) == 0)
    return start({config_.pkexec, helperPath}, nullptr, config_.interactiveStartTimeoutMs,
                 config_.requireRoot);
  if (hasText("SUDO_ASKPASS") && ::access(config_.sudo.c_str(), X_OK) == 0)
    return start({config_.sudo, "-k", "-A", "--", helperPath}, nullptr,
                 config_.interactiveStartTimeoutMs, config_.requireRoot);
  PrivilegeOpening none;
  none.failure = PrivilegeFailure::NoMeans;
  return none;
}

PrivilegeOpening LinuxPrivilege::openInherited(const std::string& helperPath) {
  return start({helperPath}, nullptr, config_.passwordStartTimeoutMs, config_.requireRoot);
}

int LinuxPrivilege::removeGuarded(const std::string& path, const std::vector<std::string>& keys) {
  return guarded::removePath(path, keys);
}

int LinuxPrivilege::renameGuarded(const std::string& source, const std::string& destination,
                                  const std::vector<std::string>& keys) {
  return guarded::renamePath(source, destination, keys);
}

PrivilegeService& LinuxPlatform::privilege() {
  static LinuxPrivilege service;
  return service;
}

}  // namespace kd
