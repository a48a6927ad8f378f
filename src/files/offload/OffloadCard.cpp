// Reading a card's tree for an offload: every regular file and folder, with
// the system's own housekeeping left out and links never followed.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/UniqueFd.h"
#include "files/offload/OffloadInternal.h"

namespace kd::offload {
namespace {

// Folders and files that systems keep on a volume for themselves: macOS,
// Windows, and the Linux desktops' trash (".Trash-<uid>").
constexpr std::array<std::string_view, 7> kSystemNames = {
    ".Trashes",  ".Spotlight-V100",           ".fseventsd",  ".TemporaryItems",
    ".DS_Store", "System Volume Information", "$RECYCLE.BIN"};

bool isLinuxTrash(std::string_view name) {
  constexpr std::string_view kPrefix = ".Trash-";
  return name.size() > kPrefix.size() && name.substr(0, kPrefix.size()) == kPrefix &&
         std::all_of(name.begin() + kPrefix.size(), name.end(),
                     [](char c) { return c >= '0' && c <= '9'; });
}

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

}  // namespace

bool matchesIgnorePattern(const std::vector<std::string>& patterns, const std::string& path,
                          bool isFolder) {
  for (const std::string& pattern : patterns) {
    if (pattern.empty()) continue;
    const bool folderOnly = pattern.back() == '/';
    const std::string bare = folderOnly ? pattern.substr(0, pattern.size() - 1) : pattern;
    if (bare.empty()) continue;
    if (bare.find('/') != std::string::npos) {
      if ((!folderOnly || isFolder) &&
          ::fnmatch(bare.c_str(), path.c_str(), FNM_PATHNAME | FNM_PERIOD) == 0)
        return true;
      continue;
    }
    std::size_t start = 0;
    for (;;) {
      const std::size_t end = path.find('/', start);
      const bool last = end == std::string::npos;
      const std::string part = path.substr(start, last ? std::string::npos : end - start);
      if ((!folderOnly || !last || isFolder) && ::fnmatch(bare.c_str(), part.c_str(), 0) == 0)
        return true;
      if (last) break;
      start = end + 1;
    }
  }
  return false;
}

std::string exclusionReason(const std::string& relative, const std::string& name, bool isFolder,
                            bool skipHistory, const std::vector<std::string>& patterns) {
  if (std::find(kSystemNames.begin(), kSystemNames.end(), name) != kSystemNames.end() ||
      (isFolder && isLinuxTrash(name)))
    return "kept by the system for itself";
  if (!isFolder && name.size() > 2 && name.compare(0, 2, "._") == 0)
    return "the system's side file of another file";
  if (skipHistory && isFolder && name == "ascmhl")
    return relative == name ? "the card's own hash list; each destination keeps its own"
                            : "a hash list of a folder inside";
  if (matchesIgnorePattern(patterns, relative, isFolder)) return "left out by --exclude";
  return {};
}

CardTree readCard(const std::string& card, bool skipHistory,
                  const std::vector<std::string>& patterns) {
  CardTree tree;
  struct stat rootStat {};
  if (::stat(card.c_str(), &rootStat) != 0 || !S_ISDIR(rootStat.st_mode)) {
    tree.error = "The card " + card + " is not a folder that can be read: " +
                 (errno ? std::strerror(errno) : "not a folder");
    return tree;
  }
  tree.folders.push_back({"", rootStat.st_mtim});
  std::vector<std::string> pending = {""};
  while (!pending.empty()) {
    const std::string relative = std::move(pending.back());
    pending.pop_back();
    const std::string path = relative.empty() ? card : card + "/" + relative;
    UniqueFd fd(retryOnEintr(
        [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    DIR* dir = fd ? ::fdopendir(fd.get()) : nullptr;
    if (!dir) {
      tree.error = "Cannot read the folder " + path + " on the card: " + std::strerror(errno);
      return tree;
    }
    const int dirFd = fd.release();
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      struct stat st {};
      const std::string child = joined(relative, name);
      if (::fstatat(dirFd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        tree.error = "Cannot read " + card + "/" + child + " on the card: " + std::strerror(errno);
        ::closedir(dir);
        return tree;
      }
      const bool isFolder = S_ISDIR(st.st_mode);
      std::string reason = exclusionReason(child, name, isFolder, skipHistory, patterns);
      if (reason.empty() && S_ISLNK(st.st_mode)) reason = "a link, not followed";
      if (reason.empty() && !isFolder && !S_ISREG(st.st_mode)) reason = "not a regular file";
      if (!reason.empty()) {
        if (skipHistory && isFolder && name == "ascmhl") tree.histories.push_back(relative);
        tree.excluded.push_back({child, std::move(reason)});
      } else if (isFolder) {
        tree.folders.push_back({child, st.st_mtim});
        pending.push_back(child);
      } else {
        tree.files.push_back({child, static_cast<std::uint64_t>(st.st_size), st.st_mtim});
        tree.bytes += static_cast<std::uint64_t>(st.st_size);
      }
      errno = 0;
    }
    const int readError = errno;
    ::closedir(dir);
    if (readError != 0) {
      tree.error = "Cannot read the folder " + path + " on the card: " + std::strerror(readError);
      return tree;
    }
  }
  auto byPath = [](const auto& a, const auto& b) { return a.path < b.path; };
  std::sort(tree.files.begin(), tree.files.end(), byPath);
  std::sort(tree.folders.begin(), tree.folders.end(), byPath);
  std::sort(tree.excluded.begin(), tree.excluded.end(), byPath);
  std::sort(tree.histories.begin(), tree.histories.end());
  return tree;
}

// Whether `path` or a folder above it is among `paths`.
bool within(const std::set<std::string>& paths, std::string path) {
  for (;;) {
    if (paths.count(path)) return true;
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return false;
    path.resize(slash);
  }
}

bool holds(const std::string& root, const std::string& path) {
  return root.empty() || path == root ||
         (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
          path[root.size()] == '/');
}

std::string below(const std::string& root, const std::string& path) {
  return root.empty() ? path : path == root ? std::string() : path.substr(root.size() + 1);
}

}  // namespace kd::offload
