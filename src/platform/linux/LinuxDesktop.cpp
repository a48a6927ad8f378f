// Desktop services on Linux: running applications from /proc, opening files
// with applications (directly or through desktop entries), making an
// application known through a desktop entry in the user's applications
// folder, and macOS-named bundle folders as packages. File browsers watch
// folders themselves (inotify), so a change needs no notice.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "common/AtomicFile.h"
#include "common/Path.h"
#include "common/Spawn.h"
#include "common/UniqueFd.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/ProcText.h"

namespace kd {

namespace {

std::string readSmallFile(const std::string& p) {
  std::ifstream in(p);
  std::string s;
  std::getline(in, s);
  return s;
}

bool isExecutableFile(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(p.c_str(), X_OK) == 0;
}

// Runs a tool with its output on the null device and waits for it.
void runQuietly(const std::vector<std::string>& argv) {
  const SpawnResult child = spawnProcess({argv});
  if (!child) return;
  int status = 0;
  retryOnEintr([&] { return static_cast<int>(::waitpid(child.pid, &status, 0)); });
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

// Stateless apart from the platform it belongs to, which it asks (never a
// test's fake) for folders and the bundle; one instance, never destroyed;
// callable from any thread.
class LinuxDesktop final : public Desktop {
 public:
  explicit LinuxDesktop(Platform& platform) : platform_(platform) {}

  bool isApplicationRunning(std::string_view bundleIdentifier) override {
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

  std::optional<std::string> bundledApplication(const std::string& name) override {
    auto resources = platform_.mainBundle().resourcesPath;
    if (!resources) return std::nullopt;
    std::string candidate = path::append(*resources, name);
    if (isExecutableFile(candidate)) return candidate;
    return std::nullopt;
  }

  bool openFileWithApplication(const std::string& file,
                               const std::string& applicationPath) override {
    if (!isExecutableFile(applicationPath)) return false;
    return spawnDetached({applicationPath, file});
  }

  bool openFileWithBundleIdentifier(const std::string& file,
                                    std::string_view bundleIdentifier) override {
    // The application's desktop entry is named after its bundle identifier.
    std::string entryName = std::string(bundleIdentifier) + ".desktop";
    // The user's data folder ($XDG_DATA_HOME, from the folder table), then
    // $XDG_DATA_DIRS.
    std::vector<std::string> dataDirs =
        platform_.searchPathForDirectories(DirectoryKind::ApplicationSupport, UserDomainMask);
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

  bool registerApplication(const std::string& path) override {
    auto data =
        platform_.searchPathForDirectories(DirectoryKind::ApplicationSupport, UserDomainMask);
    if (data.empty() || path.empty()) return false;
    std::string folder = path::append(data.front(), "applications");
    std::string entryName, entry;
    if (path::extension(path) == "desktop") {
      // A desktop entry: installed as it is.
      std::ifstream in(path);
      if (!in) return false;
      std::stringstream text;
      text << in.rdbuf();
      entry = text.str();
      if (entry.find("[Desktop Entry]") == std::string::npos) return false;
      entryName = path::lastComponent(path);
    } else if (isExecutableFile(path)) {
      // A program: an entry that opens files with it.
      entryName = path::lastComponent(path) + ".desktop";
      entry = programDesktopEntry(path);
      if (entry.empty()) return false;
    } else {
      return false;
    }
    std::string dir;
    for (const auto& part : path::components(folder)) {
      dir = path::append(dir, part);
      ::mkdir(dir.c_str(), 0755);
    }
    if (!writeFileAtomically(path::append(folder, entryName), entry)) return false;
    // The desktop database caches which entries open which types; refresh it
    // where the tool is installed (file browsers also read entries directly).
    for (const char* tool : {"/usr/bin/update-desktop-database", "/bin/update-desktop-database"}) {
      if (::access(tool, X_OK) != 0) continue;
      runQuietly({tool, "-q", folder});
      break;
    }
    return true;
  }

  bool isFilePackage(const std::string& path) override {
    // Linux has no packages; a folder named like a macOS bundle that holds a
    // "Contents" folder counts as one, so that the executability and package
    // rules stay the same on both systems.
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    std::string ext = path::extension(path);
    bool bundleName = ext == "app" || ext == "bundle" || ext == "framework" || ext == "plugin" ||
                      ext == "kext" || ext == "pkg";
    return bundleName && ::stat(path::append(path, "Contents").c_str(), &st) == 0 &&
           S_ISDIR(st.st_mode);
  }

  void noteFileSystemChanged(const std::string&) override {}

 private:
  Platform& platform_;
};

Desktop& LinuxPlatform::desktop() {
  static LinuxDesktop* instance = new LinuxDesktop(*this);  // never destroyed
  return *instance;
}

}  // namespace kd
