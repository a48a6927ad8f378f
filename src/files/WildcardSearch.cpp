#include "files/WildcardSearch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

#include "common/Path.h"
#include "files/KdFileManager.h"

namespace kd {

namespace {
struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

// Follows symbolic links: a dangling link does not exist.
bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Entries whose type says they can hold nothing are not worth descending into.
bool mayBeFolder(unsigned char type) {
  return type == DT_DIR || type == DT_LNK || type == DT_UNKNOWN;
}
}  // namespace

const std::vector<WildcardSearch::Entry>& WildcardSearch::list(const std::string& folder) {
  if (auto it = byPath_.find(folder); it != byPath_.end()) return *it->second;
  struct stat st;
  if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return none_;
  // Another path (a link) to a folder already read shares its listing.
  auto [it, fresh] = byId_.try_emplace(FolderId{st.st_dev, st.st_ino});
  if (fresh) {
    // opendir uses O_CLOEXEC in glibc and on macOS.
    std::unique_ptr<DIR, DirCloser> dir(::opendir(folder.c_str()));
    if (dir) {
      ++listingsRead_;
      while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name(entry->d_name);
        if (name == "." || name == "..") continue;
        it->second.push_back(Entry{std::string(name), entry->d_type});
      }
    }
  }
  byPath_.emplace(folder, &it->second);
  return it->second;
}

bool WildcardSearch::anyMatch(const std::string& pattern) {
  Parts parts;
  for (auto& part : path::components(pattern))
    if (part != "/") parts.names.push_back(std::move(part));
  std::string rest;
  parts.restIds.resize(parts.names.size());
  for (std::size_t i = parts.names.size(); i-- > 0;) {
    rest.insert(0, parts.names[i] + "/");
    parts.restIds[i] = restIds_.try_emplace(rest, restIds_.size()).first->second;
  }
  return search("/", parts, 0, false);
}

// Whether parts[i...] has a match inside `folder`. `listedFolder` says that
// `folder` was listed as a real folder (not a link) by its parent: it then
// needs no look, and it can be reached by no other path than through its
// parent, so only the other ways in (the start, links, literal components)
// are remembered.
bool WildcardSearch::search(const std::string& folder, const Parts& parts, std::size_t i,
                            bool listedFolder) {
  if (i == parts.names.size()) return true;
  if (!listedFolder) {
    struct stat st;
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    // Searched before from here with the same rest of the pattern: it had no
    // match then (else the search would have ended), so it has none now.
    if (!searched_.emplace(st.st_dev, st.st_ino, parts.restIds[i]).second) return false;
  }

  const std::string& part = parts.names[i];
  const bool last = i + 1 == parts.names.size();
  if (part.find('*') == std::string::npos) {
    const std::string joined = path::append(folder, part);
    return last ? exists(joined) : search(joined, parts, i + 1, false);
  }
  for (const Entry& entry : list(folder)) {
    if (!KdFileManager::nameMatchesWildcard(entry.name, part)) continue;
    const std::string joined = path::append(folder, entry.name);
    if (last) {
      // A listed entry exists; a link must point at something.
      if (entry.type != DT_LNK && entry.type != DT_UNKNOWN) return true;
      if (exists(joined)) return true;
    } else if (mayBeFolder(entry.type) && search(joined, parts, i + 1, entry.type == DT_DIR)) {
      return true;
    }
  }
  return false;
}

}  // namespace kd
