// Standard locations of this user and of the machine, path helpers, identity,
// and the system-folder guard.
//
// Stateless class operations; callable from any thread. For a process running
// as root (real user id 0, asked afresh at every call), user-domain folders are
// those of the console user. Absent results are std::nullopt.
#pragma once

#include "../KdExport.h"

#include <optional>
#include <string>

#include "../platform/Platform.h"

class KD_EXPORT KdLocalPaths {
 public:
  using OptPath = std::optional<std::string>;

  // The first folder the platform gives for the kind and domain mask. For the
  // user domain of a root process, root's home is cut off the front (as text,
  // by the platform's rules) and the rest joined to the console user's home.
  static OptPath pathForDirectory(kd::DirectoryKind kind, unsigned domain);

  // Standard folders; `userDomain` false gives the machine-wide folder.
  static OptPath applicationDirectory(bool userDomain);
  static OptPath adminApplicationDirectory(bool userDomain);
  static OptPath documentDirectory(bool userDomain);
  static OptPath libraryDirectory(bool userDomain);
  // Where settings files live (Library/Preferences on macOS).
  static OptPath prefsDirectory(bool userDomain);
  static OptPath cacheDirectory(bool userDomain);
  static OptPath appSupportDirectory(bool userDomain);
  // Where logs and crash reports live (Library/Logs on macOS).
  static OptPath logDirectory(bool userDomain);
  static OptPath movieDirectory();
  static OptPath desktopDirectory();
  static OptPath systemLibraryDirectory();
  static OptPath localDocumentationDirectory();
  // The process's own per-user cache folder (not adjusted for root).
  static OptPath darwinCacheDirectory();
  // The home folder: the console user's for a root process.
  static OptPath userDirectory();
  // The user name: the console user's for a root process.
  static OptPath username();
  static OptPath trashDirectory();
  static std::string tempDirectory();
  // A fresh name in the temporary folder; nothing is created.
  static std::string tempFile();
  static std::string uuid();
  // `length` characters of [a-z0-9]; reseeds the process's rand() on every
  // call, so it is for temporary names only, never for secrets.
  static std::string randomString(unsigned length);

  static OptPath ensureTrailingSlash(const OptPath& path);
  // Removes one trailing "/" from paths of two characters or more.
  static OptPath stripTrailingSlash(const OptPath& path);
  static bool isPathOnTimeMachineVolume(const std::string& path);
  // The user at the console; none when nobody is logged in there.
  static OptPath currentConsoleUser();

  // Whether a path names a folder the system or the user's standard layout
  // depends on. A pure text test: nothing is resolved or looked at on disk.
  // With `exactMatch` only the listed folders themselves count; without it,
  // everything inside the system trees counts too.
  static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);

  // True when the process's real user id is 0 (never cached).
  static bool isRoot();
};
