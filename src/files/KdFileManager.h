// KdFileManager: the library's file utilities.
//
// A class of static operations that hold no state of their own; each call works
// only with its arguments and the file system, so every operation may be called
// from any thread. Operations never throw: failures come back as empty, false
// or absent results. The implementation is split by concern into
// KdFileManager_<Concern>.cpp files.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

class KdFileManager {
 public:
  KdFileManager() = delete;

  // ===================================================================
  // Wildcard path matching (KdFileManager_Wildcard.cpp)
  //
  // A pattern is a path whose components may hold "*" (any run of characters,
  // including none and a leading ".") and "?" (exactly one character). It is
  // expanded level by level: a component with "*" lists each candidate folder
  // once (hidden entries included, in the file system's order); any other
  // component is joined to each candidate and kept when something exists
  // there. Existence follows symbolic links, so a dangling link does not
  // exist. Folders that cannot be listed contribute nothing.
  // ===================================================================

  // The existing paths that match `pattern`, parents in the order found and
  // entries in listing order; nothing is sorted and duplicates stay. A pattern
  // without "*" is returned joined to `basePath` (or as is when there is no
  // base) without touching the file system, even when it holds "?". An
  // absolute pattern is taken relative to `basePath` when one is given; with
  // no base, the search starts at "/". `searchSubdirs` is accepted and
  // ignored: matching never goes deeper than the pattern's own components.
  static std::vector<std::string> filesMatchingWildcardPath(
      const std::string& pattern, const std::optional<std::string>& basePath = std::nullopt,
      bool searchSubdirs = false);

  // The first match of `pattern` below `basePath`; when nothing matches, the
  // base joined with the pattern as a path component (absent without a base).
  static std::optional<std::string> decodeWildcardPath(const std::string& pattern,
                                                       const std::optional<std::string>& basePath);

  // Whether one file name matches one pattern component: "*" matches any run
  // of characters (none, or a leading "."), "?" exactly one character (one
  // UTF-8 sequence), everything else itself, case-sensitively. Takes time
  // proportional to the product of the lengths at worst, never exponential.
  static bool nameMatchesWildcard(std::string_view name, std::string_view pattern);
};
