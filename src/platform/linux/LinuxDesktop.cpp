// Desktop integration on Linux: file browsers watch folders themselves
// (inotify), so a change needs no notice; an application becomes known
// through a desktop entry in the user's applications folder.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "common/AtomicFile.h"
#include "common/Path.h"
#include "common/Spawn.h"
#include "common/UniqueFd.h"
#include "platform/linux/DesktopEntry.h"
#include "platform/linux/LinuxPlatform.h"

namespace kd {

namespace {

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
