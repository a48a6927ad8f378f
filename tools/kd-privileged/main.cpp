// kd-privileged: the library's privileged co-process.
//
// Started with root's rights by sudo or pkexec (or directly by a program that
// already has them), it serves requests that arrive on its standard input and
// answers on its standard output; see platform/linux/PrivilegedWire.h. Only
// requests that carry the session's secret (agreed at the start, over those
// pipes) are served: any other ends it. Each request names a tool by absolute
// path and its arguments, or asks for the guarded removal or renaming of a
// path (judged here, where it is changed; see platform/linux/GuardedFiles.h).
// A tool is started
// with posix_spawn (never through a shell), with its input on the null device,
// a fixed environment and no other descriptor. A waited-for run returns the
// tool's exit status and its (bounded) output.
//
// It ends when its input closes (the program that started it holds the only
// writing end, so that happens when the program ends or lets it go) and on
// any request it cannot read. While it waits for a tool, the end of its input
// stops the tool (SIGTERM) and ends it too. It never outlives the program. It takes no
// options and reads nothing else: no files, no environment.
//
// Single-threaded.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <set>
#include <string>
#include <vector>

#include "common/Spawn.h"
#include "platform/linux/GuardedFiles.h"
#include "platform/linux/PrivilegedWire.h"

namespace {

using kd::retryOnEintr;
using kd::UniqueFd;
namespace wire = kd::wire;

constexpr int kIn = STDIN_FILENO;
constexpr int kOut = STDOUT_FILENO;

// Tools get this environment and nothing of ours.
const char* const kToolEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8"};

std::set<pid_t> gStarted;  // tools started without waiting, not yet reaped

void reapStarted() {
  for (auto it = gStarted.begin(); it != gStarted.end();) {
    pid_t r = retryOnEintr([&] { return ::waitpid(*it, nullptr, WNOHANG); });
    it = r == 0 ? std::next(it) : gStarted.erase(it);
  }
}

std::string gSecret;  // the session's, from the start line

// Reads one line, keeping at most kMaxLine bytes of it and dropping (wiping)
// the rest; false at end of input or past `budget` bytes in all.
bool readAnyLine(std::string& kept, bool& whole, std::size_t& budget) {
  kept.clear();
  whole = true;
  for (char c = 0;;) {
    if (budget == 0 || !wire::readExact(kIn, &c, 1)) return false;
    --budget;
    if (c == '\n') return true;
    if (kept.size() < wire::kMaxLine)
      kept.push_back(c);
    else
      whole = false;
    c = 0;
  }
}

// Announces itself with a nonce of its own, then skips what precedes the
// start line that carries it (a password that sudo did not need to read,
// however long and whatever it says), wiping it; takes the session's secret
// from that line and confirms.
bool synchronise() {
  std::optional<std::string> nonce = wire::randomBytes(wire::kNonceBytes);
  if (!nonce) return false;
  const std::string hello = std::string(wire::kHello) + " " + std::to_string(::getpid()) + " " +
                            std::to_string(::geteuid()) + " " + wire::toHex(*nonce) + "\n";
  if (!wire::writeAll(kOut, hello)) return false;
  const std::string expected = std::string(wire::kSync) + " " + wire::toHex(*nonce) + " ";
  std::size_t budget = 1u << 20;
  std::string line;
  for (bool whole = true; readAnyLine(line, whole, budget);) {
    std::optional<std::string> secret;
    if (whole && line.size() > expected.size() &&
        wire::sameSecret(line.substr(0, expected.size()), expected))
      secret = wire::fromHex(std::string_view(line).substr(expected.size()), wire::kSecretBytes);
    explicit_bzero(line.data(), line.size());
    if (secret) {
      gSecret = std::move(*secret);
      return wire::writeAll(kOut, std::string(wire::kReady) + "\n");
    }
  }
  explicit_bzero(line.data(), line.size());
  return false;
}

struct Spawned {
  pid_t pid = 0;
  UniqueFd output;
  UniqueFd error;
  int failure = 0;
};

Spawned spawnTool(const std::vector<std::string>& argv, bool capture) {
  Spawned s;
  UniqueFd outRead, outWrite, errRead, errWrite;
  if (capture) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0) {
      s.failure = errno;
      return s;
    }
    outRead.reset(out[0]);
    outWrite.reset(out[1]);
    if (::pipe2(err, O_CLOEXEC) != 0) {
      s.failure = errno;
      return s;
    }
    errRead.reset(err[0]);
    errWrite.reset(err[1]);
  }
  // Input on the null device; output and error on the pipes or the null device.
  kd::SpawnRequest request{argv};
  request.environment.emplace(std::begin(kToolEnvironment), std::end(kToolEnvironment));
  if (capture) request.fds = {{STDOUT_FILENO, outWrite.get()}, {STDERR_FILENO, errWrite.get()}};
  const kd::SpawnResult child = kd::spawnProcess(request);
  if (!child) {
    s.failure = child.error;
    return s;
  }
  s.pid = child.pid;
  s.output = std::move(outRead);
  s.error = std::move(errRead);
  return s;
}

int statusOf(int wstatus) {
  if (WIFEXITED(wstatus)) return WEXITSTATUS(wstatus);
  if (WIFSIGNALED(wstatus)) return 128 + WTERMSIG(wstatus);
  return -1;
}

// Collects a waited-for tool's output while watching our own input: when the
// program that started us goes away, the tool is stopped and we end.
bool collect(Spawned& tool, wire::Reply& reply) {
  std::array<std::string*, 2> sinks{&reply.output, &reply.error};
  std::array<UniqueFd*, 2> streams{&tool.output, &tool.error};
  char buf[65536];
  while (tool.output || tool.error) {
    pollfd p[3] = {{tool.output.get(), POLLIN, 0}, {tool.error.get(), POLLIN, 0}, {kIn, 0, 0}};
    if (retryOnEintr([&] { return ::poll(p, 3, -1); }) < 0) return false;
    if (p[2].revents & (POLLHUP | POLLERR)) return false;
    for (int i = 0; i < 2; ++i) {
      if (!p[i].revents) continue;
      ssize_t n = retryOnEintr([&] { return ::read(streams[i]->get(), buf, sizeof buf); });
      if (n <= 0) {
        streams[i]->reset();
        continue;
      }
      std::size_t room = wire::kMaxOutput - std::min(wire::kMaxOutput, sinks[i]->size());
      sinks[i]->append(buf, std::min(room, static_cast<std::size_t>(n)));
    }
  }
  return true;
}

// Serves one request; false when we must end.
bool serve(const wire::Request& request) {
  wire::Reply reply;
  const std::string& tool = request.argv.front();
  struct stat st {};
  if (tool == wire::kRemove || tool == wire::kRename) {
    const bool rename = tool == wire::kRename;
    const std::size_t paths = rename ? 2 : 1;
    if (request.argv.size() < 1 + paths) {
      reply.status = EINVAL;
    } else {
      const std::vector<std::string> keys(request.argv.begin() + 1 + paths, request.argv.end());
      reply.status = 0;
      reply.exitStatus = rename ? kd::guarded::renamePath(request.argv[1], request.argv[2], keys)
                                : kd::guarded::removePath(request.argv[1], keys);
    }
  } else if (tool.empty() || tool.front() != '/') {
    reply.status = EINVAL;
  } else if (::stat(tool.c_str(), &st) != 0) {
    reply.status = errno == ENOENT || errno == ENOTDIR ? -2 : errno;
  } else {
    Spawned s = spawnTool(request.argv, request.wait);
    reply.status = s.pid ? 0 : s.failure;
    if (s.pid && !request.wait) gStarted.insert(s.pid);
    if (s.pid && request.wait) {
      const bool stayed = collect(s, reply);
      if (!stayed) ::kill(s.pid, SIGTERM);
      int wstatus = 0;
      if (retryOnEintr([&] { return ::waitpid(s.pid, &wstatus, 0); }) == s.pid)
        reply.exitStatus = statusOf(wstatus);
      if (!stayed) return false;
    }
  }
  return wire::writeFrame(kOut, wire::encodeReply(reply));
}

}  // namespace

int main() {
  // Nothing of the caller's reaches the tools: no descriptors beyond our two
  // pipes, no working folder, no signal dispositions.
  ::close_range(3, ~0U, 0);
  ::signal(SIGPIPE, SIG_IGN);
  // Nobody but root may look into us or open our pipes through /proc.
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  if (::chdir("/") != 0) return 1;
  ::umask(022);
  if (!synchronise()) return 1;

  for (;;) {
    reapStarted();
    // While tools started without waiting run, look in now and then to reap them.
    if (!wire::waitReadable(kIn, gStarted.empty() ? -1 : 500)) continue;
    std::optional<std::string> body = wire::readFrame(kIn);
    if (!body) break;  // our input closed: the program has ended or let us go
    std::optional<wire::Request> request = wire::decodeRequest(*body);
    // A request without the session's secret did not come from the program
    // that holds the session: end rather than serve anyone else.
    if (!request || !wire::sameSecret(request->secret, gSecret)) return 3;
    if (!serve(*request)) return 2;
  }
  return 0;
}
