// Desktop integration on Linux: file browsers watch folders themselves
// (inotify), so a change needs no notice; an application becomes known
// through a desktop entry in the user's applications folder.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/AtomicFile.h"
#include "common/Path.h"
#include "common/UniqueFd.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/LinuxPlatform.h"

extern char** environ;

namespace kd {

namespace {

bool isExecutableFile(const std::string& p) {
  struct stat st {};
  return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(p.c_str(), X_OK) == 0;
}

// Runs a tool with its output on the null device and waits for it.
void runQuietly(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (int fd = 0; fd <= 2; ++fd)
    posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
  pid_t pid = 0;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return;
  int status = 0;
  retryOnEintr([&] { return static_cast<int>(::waitpid(pid, &status, 0)); });
}

}  // namespace

class LinuxDesktop final : public Desktop {
 public:
  explicit LinuxDesktop(Platform& platform) : platform_(platform) {}

  void noteFileSystemChanged(const std::string&) override {}

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

 private:
  Platform& platform_;
};

Desktop& LinuxPlatform::desktop() {
  static LinuxDesktop* instance = new LinuxDesktop(*this);  // never destroyed
  return *instance;
}

}  // namespace kd
