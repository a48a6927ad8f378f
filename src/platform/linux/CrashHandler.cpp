// Crash reports on Linux.
//
// The system writes no crash reports here, so the library writes its own: a
// handler for the fatal signals writes <name>_<YYYY-MM-DD-HHMMSS>_<host>.crash
// into the report folder and then lets the process die by the same signal, so
// that the exit status and any core dump stay what they would have been.
//
// A signal handler may only make async-signal-safe calls, so everything that
// needs memory or locale data is prepared at install time into fixed buffers:
// the file-name parts, the executable's path, the host name, the offset from
// UTC (the time is then formatted by hand from time()), the owner for reports
// written by root, and libgcc's unwinder (loaded by a first backtrace()).
//
// Threads: installCrashHandler may be called from any thread, but is meant for
// start-up; a later call replaces the name and folder. The alternate signal
// stack belongs to the installing thread, so a stack overflow is reported only
// on that thread; other faults are reported on any thread. When two threads
// fault at once the first writes the report and the second waits to be killed.
#include <execinfo.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "common/DateText.h"
#include "common/Folders.h"
#include "common/Path.h"
#include "platform/linux/LinuxPlatform.h"

namespace kd {
namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
constexpr std::size_t kAltStackSize = 64 * 1024;
constexpr int kMaxFrames = 128;

// Everything the handler reads. Written only by installCrashHandler while
// `ready` is false; read only by the handler while it is true.
struct CrashState {
  char prefix[PATH_MAX];  // <folder>/<name>_
  char suffix[256];       // _<host>
  char appName[256];
  char executable[PATH_MAX];
  long utcOffset = 0;  // seconds east of UTC at install time
  bool chownReports = false;
  uid_t ownerUid = 0;
  gid_t ownerGid = 0;
};

CrashState gState;
std::atomic<bool> gReady{false};
std::atomic<bool> gCrashing{false};
alignas(16) char gAltStack[kAltStackSize];

// --- async-signal-safe text building ------------------------------------

// A fixed buffer that silently drops what does not fit.
struct Line {
  char text[PATH_MAX + 512];
  std::size_t len = 0;

  Line& clear() {
    len = 0;
    text[0] = '\0';
    return *this;
  }

  Line& add(const char* s) {
    while (*s && len + 1 < sizeof text) text[len++] = *s++;
    text[len] = '\0';
    return *this;
  }
  Line& addChar(char c) {
    if (len + 1 < sizeof text) text[len++] = c;
    text[len] = '\0';
    return *this;
  }
  Line& addUnsigned(unsigned long long v, unsigned width = 1, unsigned base = 10) {
    char digits[32];
    unsigned n = 0;
    do {
      digits[n++] = "0123456789abcdef"[v % base];
      v /= base;
    } while (v && n < sizeof digits);
    while (n < width && n < sizeof digits) digits[n++] = '0';
    while (n) addChar(digits[--n]);
    return *this;
  }
  Line& addSigned(long long v) {
    if (v < 0) {
      addChar('-');
      return addUnsigned(0ULL - static_cast<unsigned long long>(v));
    }
    return addUnsigned(static_cast<unsigned long long>(v));
  }
};

const char* signalName(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    case SIGABRT:
      return "SIGABRT";
    case SIGTRAP:
      return "SIGTRAP";
    case SIGSYS:
      return "SIGSYS";
    default:
      return "signal";
  }
}

void writeAll(int fd, const char* p, std::size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return;
    p += w;
    n -= static_cast<std::size_t>(w);
  }
}

void writeLine(int fd, const Line& line) {
  writeAll(fd, line.text, line.len);
  writeAll(fd, "\n", 1);
}

// Opens a new report; a second crash of the same name in the same second gets
// a numbered name instead of replacing the first report.
int openReport(const CivilTime& c) {
  for (unsigned attempt = 0; attempt < 10; ++attempt) {
    Line name;
    name.add(gState.prefix)
        .addUnsigned(static_cast<unsigned long long>(c.year), 4)
        .addChar('-')
        .addUnsigned(c.month, 2)
        .addChar('-')
        .addUnsigned(c.day, 2)
        .addChar('-')
        .addUnsigned(c.hour, 2)
        .addUnsigned(c.minute, 2)
        .addUnsigned(c.second, 2)
        .add(gState.suffix);
    if (attempt > 0) name.addChar('-').addUnsigned(attempt);
    name.add(".crash");
    int fd = ::open(name.text, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  return -1;
}

void writeReport(int sig, const siginfo_t* info) {
  const long long now = static_cast<long long>(::time(nullptr)) + gState.utcOffset;
  const CivilTime c = civilFromSeconds(now);
  int fd = openReport(c);
  if (fd < 0) return;
  if (gState.chownReports) (void)::fchown(fd, gState.ownerUid, gState.ownerGid);

  Line l;
  writeLine(fd, l.add("Process:         ")
                    .add(gState.appName)
                    .add(" [")
                    .addUnsigned(static_cast<unsigned long long>(::getpid()))
                    .add("]"));
  l.clear();
  writeLine(fd, l.add("Path:            ").add(gState.executable));
  l.clear();
  const long offset = gState.utcOffset;
  const unsigned long absOffset = static_cast<unsigned long>(offset < 0 ? -offset : offset);
  l.add("Date/Time:       ")
      .addUnsigned(static_cast<unsigned long long>(c.year), 4)
      .addChar('-')
      .addUnsigned(c.month, 2)
      .addChar('-')
      .addUnsigned(c.day, 2)
      .addChar(' ')
      .addUnsigned(c.hour, 2)
      .addChar(':')
      .addUnsigned(c.minute, 2)
      .addChar(':')
      .addUnsigned(c.second, 2)
      .addChar(' ')
      .addChar(offset < 0 ? '-' : '+')
      .addUnsigned(absOffset / 3600, 2)
      .addUnsigned(absOffset / 60 % 60, 2);
  writeLine(fd, l);
  l.clear();
  writeLine(fd,
            l.add("Crashed Thread:  ").addSigned(static_cast<long long>(::syscall(SYS_gettid))));
  l.clear();
  l.add("Exception Type:  ").add(signalName(sig)).add(" (signal ").addSigned(sig).add(")");
  if (info) l.add(", code ").addSigned(info->si_code);
  writeLine(fd, l);
  if (info && (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL)) {
    l.clear();
    l.add("Fault Address:   0x")
        .addUnsigned(reinterpret_cast<std::uintptr_t>(info->si_addr), 1, 16);
    writeLine(fd, l);
  }
  if (info && info->si_code <= 0) {  // sent by a process (kill, raise, abort)
    l.clear();
    l.add("Sent By:         pid ").addSigned(info->si_pid);
    writeLine(fd, l);
  }
  writeAll(fd, "\nBacktrace:\n", 12);
  void* frames[kMaxFrames];
  int n = ::backtrace(frames, kMaxFrames);
  ::backtrace_symbols_fd(frames, n, fd);
  ::fsync(fd);
  ::close(fd);
}

void onFatalSignal(int sig, siginfo_t* info, void*) {
  const int savedErrno = errno;
  bool expected = false;
  if (gCrashing.compare_exchange_strong(expected, true)) {
    if (gReady.load()) writeReport(sig, info);
  } else {
    // Another thread is writing the report and will end the process.
    for (;;) ::pause();
  }
  // Die by the same signal: the default action, then the signal again. It is
  // blocked while the handler runs and is delivered when the handler returns;
  // a hardware fault recurs on return anyway.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigemptyset(&dfl.sa_mask);
  ::sigaction(sig, &dfl, nullptr);
  errno = savedErrno;
  ::raise(sig);
}

bool copyInto(char* dest, std::size_t size, const std::string& src) {
  if (src.size() + 1 > size) return false;
  std::memcpy(dest, src.c_str(), src.size() + 1);
  return true;
}

// File names must not hold a "/"; anything else is kept as given.
std::string fileNameSafe(std::string s) {
  for (char& c : s)
    if (c == '/') c = '-';
  return s;
}

}  // namespace

void LinuxPlatform::installCrashHandler(const std::string& appName,
                                        const std::string& reportFolder) {
  // Folders made by a root process belong to whoever owns the folder they are
  // made in, so that a root run leaves nothing in a home the user cannot change.
  std::optional<FileOwner> owner;
  if (::geteuid() == 0) owner = ownerOfNearestFolder(reportFolder);
  if (owner && owner->uid == 0) owner.reset();
  if (!createFolders(reportFolder, 0700, owner)) return;

  char host[HOST_NAME_MAX + 1] = {};
  if (::gethostname(host, sizeof host - 1) != 0 || !host[0]) std::strcpy(host, "localhost");
  std::string shortHost(host);
  if (auto dot = shortHost.find('.'); dot != std::string::npos && dot > 0) shortHost.resize(dot);

  char exe[PATH_MAX] = {};
  ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  if (n < 0) n = 0;
  exe[n] = '\0';

  // localtime_r is not async-signal-safe, so the offset is taken now; a change
  // to or from summer time before a crash shifts the report's time by an hour.
  std::time_t now = std::time(nullptr);
  struct tm local {};
  long offset = ::localtime_r(&now, &local) ? local.tm_gmtoff : 0;

  struct stat folder {};
  if (::stat(reportFolder.c_str(), &folder) != 0) return;

  // Loads the unwinder now: its first use allocates, which a handler must not.
  void* frames[2];
  (void)::backtrace(frames, 2);

  gReady.store(false);
  const std::string name = fileNameSafe(appName);
  if (!copyInto(gState.prefix, sizeof gState.prefix, path::append(reportFolder, name + "_")) ||
      !copyInto(gState.suffix, sizeof gState.suffix, "_" + fileNameSafe(shortHost)) ||
      !copyInto(gState.appName, sizeof gState.appName, name) ||
      !copyInto(gState.executable, sizeof gState.executable, exe))
    return;
  gState.utcOffset = offset;
  gState.chownReports = ::geteuid() == 0 && folder.st_uid != 0;
  gState.ownerUid = folder.st_uid;
  gState.ownerGid = folder.st_gid;
  gReady.store(true);

  // Keep an alternate stack someone else (a sanitizer) already set up.
  stack_t current{};
  if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE)) {
    stack_t ours{};
    ours.ss_sp = gAltStack;
    ours.ss_size = sizeof gAltStack;
    (void)::sigaltstack(&ours, nullptr);
  }

  struct sigaction action {};
  action.sa_sigaction = onFatalSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  // All fatal signals stay blocked while a report is written, so that a fault
  // inside the handler ends the process instead of re-entering it.
  sigemptyset(&action.sa_mask);
  for (int sig : kFatalSignals) sigaddset(&action.sa_mask, sig);
  for (int sig : kFatalSignals) ::sigaction(sig, &action, nullptr);
}

}  // namespace kd
