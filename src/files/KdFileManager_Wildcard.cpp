// Wildcard path matching of KdFileManager.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <optional>

#include "common/Path.h"
#include "files/KdFileManager.h"

namespace {

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// Index of the character after the one starting at `i`: a UTF-8 lead byte
// takes its continuation bytes along, any other byte stands alone.
std::size_t nextChar(std::string_view s, std::size_t i) {
  const auto lead = static_cast<unsigned char>(s[i++]);
  if (lead < 0xC0) return i;
  for (int k = 0; k < 3 && i < s.size(); ++k, ++i) {
    if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) break;
  }
  return i;
}

// Follows symbolic links: a dangling link does not exist.
bool existsAt(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Appends to `out` every entry of `folder` whose name matches `component`.
// Opens the folder once; a folder that cannot be opened adds nothing.
void appendMatchingEntries(const std::string& folder, std::string_view component,
                           std::vector<std::string>& out) {
  // opendir uses O_CLOEXEC in glibc and on macOS.
  DirHandle dir(::opendir(folder.c_str()));
  if (!dir) return;
  const int fd = ::dirfd(dir.get());
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    if (!KdFileManager::nameMatchesWildcard(name, component)) continue;
    // A listed folder or file exists; links (and file systems that do not
    // report the type) need a look at what they point to.
    if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
      struct stat st;
      if (::fstatat(fd, entry->d_name, &st, 0) != 0) continue;
    }
    out.push_back(kd::path::append(folder, name));
  }
}

// The folders a candidate was found inside, innermost first (a shared chain:
// candidates found in one folder share its tail).
struct Inside {
  dev_t dev;
  ino_t ino;
  std::shared_ptr<const Inside> outer;
};

struct Candidate {
  std::string path;
  std::shared_ptr<const Inside> inside;
};

// The chain for descending into `folder`; none when it is no folder, or when
// it is a folder the search is already inside (a link back to an ancestor):
// going in again would only find the same entries under longer names, again
// and again.
std::optional<std::shared_ptr<const Inside>> enter(const Candidate& folder) {
  struct stat st;
  if (::stat(folder.path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::nullopt;
  for (const Inside* f = folder.inside.get(); f; f = f->outer.get())
    if (f->dev == st.st_dev && f->ino == st.st_ino) return std::nullopt;
  return std::make_shared<const Inside>(Inside{st.st_dev, st.st_ino, folder.inside});
}

// The chain of `path`, reached from a folder (whose chain is `inside`) by a
// literal "." or "..": the pattern itself steps back to a folder the search
// is inside, which is no link loop. Its chain is then that folder's own: cut
// at the folder, so that going on from there is allowed. A ".." out of a
// folder reached through a link leads elsewhere; it keeps the chain.
std::shared_ptr<const Inside> steppedBack(const std::string& path,
                                          const std::shared_ptr<const Inside>& inside) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return inside;
  for (const Inside* f = inside.get(); f; f = f->outer.get())
    if (f->dev == st.st_dev && f->ino == st.st_ino) return f->outer;
  return inside;
}

std::vector<std::string> expand(const std::string& pattern,
                                const std::optional<std::string>& basePath) {
  if (pattern.find('*') == std::string::npos) {
    return {basePath ? kd::path::append(*basePath, pattern) : pattern};
  }
  const std::string start = basePath ? *basePath : std::string("/");
  std::vector<Candidate> candidates{{start, nullptr}};
  for (const std::string& component : kd::path::components(pattern)) {
    std::vector<Candidate> next;
    if (component == "/") {
      next.push_back({start, nullptr});
    } else {
      const bool wildcard = component.find('*') != std::string::npos;
      const bool stepsBack = component == "." || component == "..";
      std::vector<std::string> found;
      for (const Candidate& folder : candidates) {
        auto inside = enter(folder);
        if (!inside) continue;
        found.clear();
        if (wildcard) {
          appendMatchingEntries(folder.path, component, found);
        } else {
          std::string joined = kd::path::append(folder.path, component);
          if (existsAt(joined)) found.push_back(std::move(joined));
        }
        for (auto& path : found) {
          auto chain = stepsBack ? steppedBack(path, *inside) : *inside;
          next.push_back({std::move(path), std::move(chain)});
        }
      }
    }
    candidates = std::move(next);
  }
  std::vector<std::string> matches;
  matches.reserve(candidates.size());
  for (auto& c : candidates) matches.push_back(std::move(c.path));
  return matches;
}

}  // namespace

bool KdFileManager::nameMatchesWildcard(std::string_view name, std::string_view pattern) {
  // Greedy scan that remembers only the latest "*": on a mismatch the latest
  // star swallows one more character and the scan resumes after it. Earlier
  // stars never need revisiting, which keeps the work at O(name x pattern).
  constexpr std::size_t kNone = std::string_view::npos;
  std::size_t n = 0, p = 0;
  std::size_t starP = kNone, starN = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      starP = ++p;
      starN = n;
    } else if (p < pattern.size() && pattern[p] == '?') {
      ++p;
      n = nextChar(name, n);
    } else if (p < pattern.size() && pattern[p] == name[n]) {
      ++p;
      ++n;
    } else if (starP != kNone) {
      starN = nextChar(name, starN);
      n = starN;
      p = starP;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

std::vector<std::string> KdFileManager::filesMatchingWildcardPath(
    const std::string& pattern, const std::optional<std::string>& basePath, bool searchSubdirs) {
  try {
    return expand(pattern, basePath);
  } catch (...) {
    // Only allocation can fail here; the contract is an empty result.
    return {};
  }
}

std::optional<std::string> KdFileManager::decodeWildcardPath(
    const std::string& pattern, const std::optional<std::string>& basePath) {
  try {
    std::vector<std::string> matches = expand(pattern, basePath);
    if (!matches.empty()) return std::move(matches.front());
    return kd::path::append(basePath, pattern);
  } catch (...) {
    return std::nullopt;
  }
}
