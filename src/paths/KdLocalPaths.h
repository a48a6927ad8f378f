// Standard locations of this user and of the machine, path helpers, identity,
// and the system-folder guard.
//
// Stateless class operations; callable from any thread. For a process running
// as root (real user id 0, asked afresh at every call), user-domain folders are
// those of the console user. Absent results are std::nullopt.
#pragma once

#include <optional>
#include <string>

#include "platform/Platform.h"

class KdLocalPaths {
 public:
  using OptPath = std::optional<std::string>;

  static OptPath pathForDirectory(kd::DirectoryKind kind, unsigned domain);

  static OptPath applicationDirectory(bool userDomain);
  static OptPath adminApplicationDirectory(bool userDomain);
  static OptPath documentDirectory(bool userDomain);
  static OptPath libraryDirectory(bool userDomain);
  static OptPath prefsDirectory(bool userDomain);
  static OptPath cacheDirectory(bool userDomain);
  static OptPath appSupportDirectory(bool userDomain);
  static OptPath logDirectory(bool userDomain);
  static OptPath movieDirectory();
  static OptPath desktopDirectory();
  static OptPath systemLibraryDirectory();
  static OptPath localDocumentationDirectory();
  static OptPath darwinCacheDirectory();
  static OptPath userDirectory();
  static OptPath username();
  static OptPath trashDirectory();
  static std::string tempDirectory();
  static std::string tempFile();
  static std::string uuid();
  static std::string randomString(unsigned length);

  static OptPath ensureTrailingSlash(const OptPath& path);
  static OptPath stripTrailingSlash(const OptPath& path);
  static bool isPathOnTimeMachineVolume(const std::string& path);
  static OptPath currentConsoleUser();

  static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);

  // True when the process's real user id is 0 (never cached).
  static bool isRoot();
};
