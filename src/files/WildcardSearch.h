// First-match wildcard search with shared folder listings.
//
// Answers "does this pattern have any match?" for the card detector, which
// asks several such questions of one volume. Each folder is listed at most
// once per search object, however many patterns or links lead to it, and a
// (folder, rest of the pattern) pair that was already searched is never
// searched again, so a card full of links back into itself costs time in
// proportion to its size, not to the number of paths through it.
//
// Patterns follow KdFileManager's rules ("*" and "?" within one component,
// matched with nameMatchesWildcard; existence follows links).
//
// Ownership and threads: a WildcardSearch owns its listings; one thread at a
// time. Make one per detection: it caches what it saw.
#pragma once

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace kd {

class WildcardSearch {
 public:
  struct Entry {
    std::string name;
    unsigned char type = 0;  // a dirent d_type (DT_UNKNOWN when not reported)
  };

  // The entries of `folder` (hidden ones included, "." and ".." left out), in
  // the file system's order; empty when it cannot be listed.
  const std::vector<Entry>& list(const std::string& folder);

  // Whether `pattern` (an absolute path, searched from "/") has a match.
  bool anyMatch(const std::string& pattern);

  // How many folders were actually read (for tests and benchmarks).
  std::size_t listingsRead() const { return listingsRead_; }

 private:
  using FolderId = std::pair<dev_t, ino_t>;
  // A pattern split into components, with an id for each rest of it (the
  // same rest of two patterns has the same id).
  struct Parts {
    std::vector<std::string> names;
    std::vector<std::size_t> restIds;
  };
  bool search(const std::string& folder, const Parts& parts, std::size_t i, bool listedFolder);

  std::map<FolderId, std::vector<Entry>> byId_;
  std::map<std::string, const std::vector<Entry>*> byPath_;
  std::map<std::string, std::size_t> restIds_;
  std::set<std::tuple<dev_t, ino_t, std::size_t>> searched_;
  std::vector<Entry> none_;
  std::size_t listingsRead_ = 0;
};

}  // namespace kd
