// KdFileManager: the library's file utilities.
//
// A class of static operations that hold no state of their own; each call works
// only with its arguments and the file system, so every operation may be called
// from any thread. Operations never throw: failures come back as empty, false
// or absent results. The implementation is split by concern into
// KdFileManager_<Concern>.cpp files.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "files/KdDelegates.h"
#include "files/KdDigestContext.h"

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

  // ===================================================================
  // Hashing (KdFileManager_Hash.cpp)
  //
  // Digest text is lowercase hexadecimal, two digits a byte, no separators.
  // The whole-file hashes read the file in 64 KiB chunks on the caller's
  // thread and block it until the end. With a delegate that responds to
  // checksumShouldContinue, each time the bytes read so far reach an exact
  // multiple of 50 MiB the delegate is asked, on a kd::WorkQueue thread and
  // without waiting for the answer, whether to go on; a false answer stops the
  // hash within a chunk or so. A read shorter than 64 KiB (a pipe) moves the
  // count off those multiples, usually for good. Failures return nothing:
  //   can't open    system log "Error: Unable to open destination file <path>.
  //                 Aborting hash verification..."
  //   no memory     application log and stdout "Error reading file <path> - out of memory"
  //   read error    application log and stdout "Error reading file <path> - aborting..."
  //   stopped       no message
  // No partial digest is ever returned and the file is closed on every path.
  // ===================================================================

  // The digest of what `context` was fed, finalised on a copy so that the
  // caller's context stays usable. Absent only for a failed context.
  static std::optional<std::string> md5HashWithContext(KdMD5Context context);
  static std::optional<std::string> sha1HashWithContext(KdSHA1Context context);
  static std::optional<std::string> sha256HashWithContext(KdSHA256Context context);
  static std::optional<std::string> sha512HashWithContext(KdSHA512Context context);

  // The digest text of the file at `path`, or nothing on failure or when the
  // delegate stopped it.
  static std::optional<std::string> md5HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);
  static std::optional<std::string> sha1HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);
  static std::optional<std::string> sha512HashForFile(
      const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate = nullptr);
};
