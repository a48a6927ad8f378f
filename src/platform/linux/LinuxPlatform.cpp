#include "platform/linux/LinuxPlatform.h"

#include <limits.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <random>

#include "common/Path.h"
#include "common/Utf8.h"
#include "platform/linux/Passwd.h"

namespace kd {

Platform& nativePlatform() {
  static LinuxPlatform* instance = new LinuxPlatform();  // never destroyed
  return *instance;
}

std::uint32_t LinuxPlatform::realUserId() {
  return static_cast<std::uint32_t>(getuid());
}

std::optional<std::string> LinuxPlatform::homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return std::string(home);
  if (auto entry = passwdByUid(getuid())) return entry->home;
  return std::nullopt;
}

std::optional<std::string> LinuxPlatform::homeDirectoryForUser(const std::string& user) {
  if (auto entry = passwdByName(user)) return entry->home;
  return std::nullopt;
}

std::optional<std::string> LinuxPlatform::userName() {
  if (auto entry = passwdByUid(getuid())) return entry->name;
  return std::nullopt;
}

std::optional<FileOwner> LinuxPlatform::userIdentifiers(const std::string& user) {
  if (auto entry = passwdByName(user)) return FileOwner{entry->uid, entry->gid};
  return std::nullopt;
}

std::string LinuxPlatform::homesFolderName() {
  return "home";
}

std::vector<PrefixDrop> LinuxPlatform::rootHomeAdjustments() {
  return {{"/root", 5}};
}

std::string LinuxPlatform::temporaryDirectory() {
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = (tmp && *tmp) ? tmp : "/tmp";
  if (dir.back() != '/') dir.push_back('/');
  return dir;
}

std::string LinuxPlatform::globallyUniqueString() {
  // Host, process and a counter make it unique; random bits make it unlikely
  // to repeat across processes that reuse a pid.
  static std::atomic<std::uint64_t> counter{0};
  static const std::uint64_t salt = std::random_device{}();
  char host[HOST_NAME_MAX + 1] = {};
  gethostname(host, sizeof host - 1);
  char buf[160];
  std::snprintf(
      buf, sizeof buf, "%08llX-%s-%d-%llX-%llX",
      static_cast<unsigned long long>(salt & 0xFFFFFFFFu), host, static_cast<int>(getpid()),
      static_cast<unsigned long long>(std::chrono::system_clock::now().time_since_epoch().count()),
      static_cast<unsigned long long>(counter.fetch_add(1) + 1));
  return buf;
}

std::optional<std::string> LinuxPlatform::currentDirectory() {
  char buf[1024];
  if (!getcwd(buf, sizeof buf)) return std::nullopt;
  std::string dir(buf);
  if (!utf8::isValid(dir)) return std::nullopt;
  return dir;
}

std::string LinuxPlatform::osName() {
  return "Linux";
}

std::string LinuxPlatform::osVersionString() {
  // PRETTY_NAME of os-release plus the kernel release, e.g.
  // "Debian GNU/Linux 12 (bookworm) (kernel 6.1.0-18-amd64)".
  std::string pretty;
  std::ifstream in("/etc/os-release");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("PRETTY_NAME=", 0) == 0) {
      pretty = line.substr(12);
      if (pretty.size() >= 2 && pretty.front() == '"' && pretty.back() == '"')
        pretty = pretty.substr(1, pretty.size() - 2);
    }
  }
  struct utsname u {};
  std::string kernel = uname(&u) == 0 ? u.release : "";
  if (pretty.empty()) return kernel;
  return pretty + " (kernel " + kernel + ")";
}

long LinuxPlatform::processorCount() {
  return sysconf(_SC_NPROCESSORS_CONF);
}

std::uint64_t LinuxPlatform::physicalMemory() {
  long pages = sysconf(_SC_PHYS_PAGES);
  long pageSize = sysconf(_SC_PAGE_SIZE);
  if (pages < 0 || pageSize < 0) return 0;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
}

BundleInfo LinuxPlatform::mainBundle() {
  // The "bundle" is the installed program: its executable, the build's
  // version, and a resources folder beside it (../share/ferrimo, or
  // "Resources" next to the executable when run from an application folder).
  BundleInfo info;
  char buf[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n > 0) {
    buf[n] = '\0';
    info.executablePath = std::string(buf);
    std::string name = path::lastComponent(buf);
    if (auto dot = name.rfind('.'); dot != std::string::npos && dot > 0) name.resize(dot);
    info.name = name;
    std::string dir = path::deletingLastComponent(buf);
    struct stat st {};
    std::string beside = path::append(dir, "Resources");
    std::string shared = path::append(path::deletingLastComponent(dir), "share/ferrimo");
    if (::stat(beside.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
      info.resourcesPath = beside;
    else if (::stat(shared.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
      info.resourcesPath = shared;
  }
#ifdef KD_VERSION
  info.version = KD_VERSION;
#endif
  return info;
}

void LinuxPlatform::systemLog(std::string_view message) {
  // Standard error, like NSLog (unless the program tells its failures itself),
  // and syslog (the journal picks it up where it runs; without a syslog daemon
  // the message is dropped there).
  static std::once_flag opened;
  std::string name = mainBundle().name.value_or("Kd");
  static std::string ident;
  std::call_once(opened, [&] {
    ident = name;
    openlog(ident.c_str(), LOG_PID | LOG_NDELAY, LOG_USER);
  });
  std::string line(message);
  if (systemLogOnStandardError()) {
    std::fprintf(stderr, "%s[%d] %s\n", name.c_str(), static_cast<int>(getpid()), line.c_str());
    std::fflush(stderr);
  }
  syslog(LOG_NOTICE, "%s", line.c_str());
}

}  // namespace kd
