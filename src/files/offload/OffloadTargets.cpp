// The offload's destinations: checked before anything is written
// (preflight), each made and held open as folders (prepareTargets, Target),
// and checked again before every file.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/Folders.h"
#include "files/offload/OffloadRun.h"
#include "platform/FileIO.h"
#include "platform/Platform.h"

namespace kd::offload {

std::optional<std::string> Target::enter(const std::string& relative, bool make) {
  std::vector<std::string> parts;
  for (std::size_t start = 0; start < relative.size();) {
    std::size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    parts.push_back(relative.substr(start, end - start));
    start = end + 1;
  }
  std::size_t keep = 0;
  while (keep < parts.size() && keep + 1 < open.size() && open[keep + 1].name == parts[keep])
    ++keep;
  leaveTo(keep + 1);
  if (std::optional<std::string> moved = intact()) {
    leaveTo(firstMoved().value_or(1));  // opened anew, and checked, by the next file
    return moved;
  }
  for (std::size_t i = keep; i < parts.size(); ++i) {
    const int above = current();
    const char* name = parts[i].c_str();
    UniqueFd fd(retryOnEintr([&] { return ::openat(above, name, kFolderFlags); }));
    if (!fd && errno == ENOENT && make) {
      if (::mkdirat(above, name, 0755) != 0 && errno != EEXIST) return std::strerror(errno);
      fd.reset(retryOnEintr([&] { return ::openat(above, name, kFolderFlags); }));
    }
    if (!fd && (errno == ELOOP || errno == ENOTDIR)) {
      std::string part = currentPath();
      part += (part.empty() ? "" : "/") + parts[i];
      return "a link or a file is where the folder " + part + " belongs; nothing was written";
    }
    OpenFolder& folder = open.emplace_back();
    folder.name = parts[i];
    if (!fd || ::fstat(fd.get(), &folder.st) != 0) {
      const int err = errno;
      open.pop_back();
      return std::string(std::strerror(err));
    }
    folder.fd = std::move(fd);
  }
  return std::nullopt;
}

std::optional<std::string> Target::intact() const {
  if (std::optional<std::size_t> moved = firstMoved()) {
    std::string path;
    for (std::size_t j = 1; j <= *moved; ++j) path += (j > 1 ? "/" : "") + open[j].name;
    return "the folder " + path + " was moved or replaced during the offload";
  }
  return std::nullopt;
}

std::optional<std::size_t> Target::firstMoved() const {
  for (std::size_t i = 1; i < open.size(); ++i) {
    struct stat st {};
    if (::fstatat(open[i - 1].fd.get(), open[i].name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !sameItem(st, open[i].st))
      return i;
  }
  return std::nullopt;
}

void Target::leaveTo(std::size_t size) {
  while (open.size() > size) {
    if (open.back().changed) fileio::flushFolderToDevice(open.back().fd.get());
    open.pop_back();
  }
}

void Target::flushFolders() {
  leaveTo(1);
  if (open.front().changed && fileio::flushFolderToDevice(open.front().fd.get()) == 0)
    open.front().changed = false;
}

std::optional<std::string> Target::gone() const {
  struct stat st {};
  if (::lstat(folder.c_str(), &st) != 0)
    return "the destination is gone (" + std::string(std::strerror(errno)) + ")";
  if (!S_ISDIR(st.st_mode) || !sameItem(st, root().st))
    return std::string("the destination is gone (its folder was replaced or unmounted)");
  return std::nullopt;
}

bool Run::prepareTargets() {
  struct stat card {};
  char cardReal[PATH_MAX];
  if (::stat(options_.card.c_str(), &card) != 0 || !::realpath(options_.card.c_str(), cardReal)) {
    report_.error = "The card " + options_.card + " cannot be read: " + std::strerror(errno);
    return false;
  }
  const std::string cardPath = cardReal;
  for (const std::string& destination : options_.destinations) {
    struct stat st {};
    if (::stat(destination.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      report_.error =
          "The destination " + destination + " is not an existing folder (is its drive mounted?)";
      return false;
    }
    Target& t = targets_.emplace_back();
    t.folder = trimmed(destination) + "/" + report_.name;
    t.report.folder = t.folder;
    t.report.states.assign(tree_.files.size(), OffloadFileState::NotCopied);
    std::string error;
    char real[PATH_MAX];
    const Result<void> made = createFolders(t.folder, 0755, std::nullopt);
    if (!made || ::lstat(t.folder.c_str(), &st) != 0 || !::realpath(t.folder.c_str(), real)) {
      report_.error = "Cannot make the folder " + t.folder + ": " +
                      (made ? std::string(std::strerror(errno)) : made.error().message());
      return false;
    }
    OpenFolder& root = t.open.emplace_back();
    root.fd.reset(retryOnEintr([&] { return ::open(t.folder.c_str(), kFolderFlags); }));
    // A link would take the copies elsewhere.
    if (!S_ISDIR(st.st_mode) || !root.fd || ::fstat(root.fd.get(), &root.st) != 0 ||
        !sameItem(root.st, st)) {
      report_.error = "The destination " + t.folder + " is a link, not a folder";
      return false;
    }
    const std::string folderPath = real;
    auto inside = [](const std::string& inner, const std::string& outer) {
      return inner == outer || outer == "/" ||
             (inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 &&
              inner[outer.size()] == '/');
    };
    if (inside(folderPath, cardPath) || inside(cardPath, folderPath)) {
      report_.error = "The destination " + t.folder + " and the card " + options_.card +
                      " overlap: one is inside the other";
      return false;
    }
    for (const Target& other : targets_)
      if (&other != &t && sameItem(other.root().st, st)) {
        report_.error = "The destination " + t.folder + " is named twice";
        return false;
      }
    if (options_.mhl) {
      if (std::optional<std::string> problem =
              cardHistories_.destinationProblem(t.root().fd.get(), t.folder)) {
        report_.error = *problem;
        return false;
      }
      t.historyUsable = MhlHistory::loadAt(t.root().fd.get(), t.folder, t.history, error);
      if (!t.historyUsable)
        t.fail(t.folder + "/ascmhl",
               "its hash list cannot be read, so no generation is added to it: " + error);
    }
  }
  return true;
}

bool Run::preflight() {
  std::vector<std::pair<std::string, std::string>> drives;  // destination, drive
  for (const std::string& destination : options_.destinations) {
    struct statvfs vfs {};
    if (::statvfs(destination.c_str(), &vfs) == 0) {
      const std::uint64_t free = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
      std::uint64_t needed = 0;
      const std::string folder = trimmed(destination) + "/" + report_.name;
      for (const CardFile& f : tree_.files) {
        struct stat st {};
        if (::lstat((folder + "/" + f.path).c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
            static_cast<std::uint64_t>(st.st_size) != f.size)
          needed += f.size;
      }
      if (needed > free && !options_.force) {
        report_.error = "The destination " + destination + " has " +
                        KdFileManager::formatFileSize(static_cast<double>(free)) +
                        " free, but the card needs " +
                        KdFileManager::formatFileSize(static_cast<double>(needed)) +
                        " there: free some space or leave it out (--force tries anyway)";
        return false;
      }
    }
    if (std::optional<std::string> drive = platform().volumes().physicalDriveOf(destination)) {
      for (const auto& [other, otherDrive] : drives)
        if (otherDrive == *drive)
          report_.warnings.push_back("The destinations " + other + " and " + destination +
                                     " are on the same drive (" + *drive +
                                     "): two copies on one drive are one copy");
      drives.emplace_back(destination, *drive);
    }
  }
  return true;
}

}  // namespace kd::offload
