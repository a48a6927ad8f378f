// Workspace services on Linux: removable media from the mount table, running
// applications from /proc, and opening files with applications.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "common/Path.h"
#include "common/Spawn.h"
#include "common/UniqueFd.h"
#include "platform/linux/BlockDevices.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/ProcText.h"

namespace kd {

namespace {

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

std::string readSmallFile(const std::string& p) {
  std::ifstream in(p);
  std::string s;
  std::getline(in, s);
  return s;
}

// Starts a program with arguments, detached: standard streams go to the null
// device and a background thread reaps it so that no zombie stays behind.
bool spawnDetached(const std::vector<std::string>& argv) {
  SpawnRequest request{argv};
  // A new session: the opened application outlives us and ignores our terminal.
  request.newSession = true;
  const SpawnResult child = spawnProcess(request);
  if (!child) return false;
  const pid_t pid = child.pid;
  std::thread([pid] {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }).detach();
  return true;
}

bool isExecutableFile(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(p.c_str(), X_OK) == 0;
}

// The absolute folders of a colon-separated list such as PATH.
std::vector<std::string> splitFolderList(std::string_view list) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = std::min(list.find(':', start), list.size());
    if (end > start && list[start] == '/') out.emplace_back(list.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

// Resolves the program of an Exec word through PATH when it has no slash.
std::optional<std::string> resolveProgram(const std::string& word) {
  if (word.find('/') != std::string::npos)
    return isExecutableFile(word) ? std::optional(word) : std::nullopt;
  const char* pathEnv = std::getenv("PATH");
  for (const auto& dir : splitFolderList(pathEnv ? pathEnv : "/usr/local/bin:/usr/bin:/bin")) {
    std::string candidate = path::append(dir, word);
    if (isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

}  // namespace

bool isRemovableMedia(const MountEntry& m) {
  if (m.target.empty() || isPseudoFileSystem(m.fsType)) return false;
  return startsWith(m.target, "/media/") || startsWith(m.target, "/run/media/") ||
         (major(m.device) != 0 && isRemovableBlockDevice(m.device));
}

std::vector<std::string> LinuxPlatform::mountedRemovableMedia() {
  std::vector<std::string> media;
  for (const auto& m : readMountTable())
    if (isRemovableMedia(m)) media.push_back(m.target);
  return media;
}

bool LinuxPlatform::isApplicationRunning(std::string_view bundleIdentifier) {
  // A bundle identifier names its executable in its last component
  // ("com.quillfen.Ferrimo" runs as an executable named "Ferrimo").
  std::string exeName(bundleIdentifier.substr(bundleIdentifier.rfind('.') + 1));
  if (exeName.empty()) return false;
  uid_t me = getuid();
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  if (!proc) return false;
  pid_t self = getpid();
  while (dirent* e = readdir(proc.get())) {
    char* end = nullptr;
    long pid = std::strtol(e->d_name, &end, 10);
    if (*end != '\0' || pid <= 0 || pid == self) continue;
    std::string dir = std::string("/proc/") + e->d_name;
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0 || st.st_uid != me) continue;
    char buf[4096];
    ssize_t n = readlink((dir + "/exe").c_str(), buf, sizeof buf - 1);
    std::string name;
    if (n > 0) {
      name = executableNameOfLink(std::string_view(buf, static_cast<std::size_t>(n)));
    } else {
      name = readSmallFile(dir + "/comm");  // kernel threads and unreadable links
    }
    if (name == exeName) return true;
  }
  return false;
}

std::optional<std::string> LinuxPlatform::bundledApplication(const std::string& name) {
  auto resources = mainBundle().resourcesPath;
  if (!resources) return std::nullopt;
  std::string candidate = path::append(*resources, name);
  if (isExecutableFile(candidate)) return candidate;
  return std::nullopt;
}

bool LinuxPlatform::openFileWithApplication(const std::string& file,
                                            const std::string& applicationPath) {
  if (!isExecutableFile(applicationPath)) return false;
  return spawnDetached({applicationPath, file});
}

bool LinuxPlatform::openFileWithBundleIdentifier(const std::string& file,
                                                 std::string_view bundleIdentifier) {
  // The application's desktop entry is named after its bundle identifier.
  std::string entryName = std::string(bundleIdentifier) + ".desktop";
  // The user's data folder ($XDG_DATA_HOME, from the folder table), then
  // $XDG_DATA_DIRS.
  std::vector<std::string> dataDirs =
      searchPathForDirectories(DirectoryKind::ApplicationSupport, UserDomainMask);
  const char* systemDirs = std::getenv("XDG_DATA_DIRS");
  for (auto& dir :
       splitFolderList(systemDirs && *systemDirs ? systemDirs : "/usr/local/share:/usr/share"))
    dataDirs.push_back(std::move(dir));
  for (const auto& dir : dataDirs) {
    std::ifstream in(path::append(path::append(dir, "applications"), entryName));
    if (!in) continue;
    // The first entry found decides, as the lookup order says.
    const std::optional<std::string> exec = desktopEntryExec(in);
    if (!exec) return false;
    auto words = execArguments(*exec, file);
    if (words.empty()) return false;
    auto program = resolveProgram(words[0]);
    if (!program) return false;
    words[0] = *program;
    return spawnDetached(words);
  }
  return false;
}

}  // namespace kd
