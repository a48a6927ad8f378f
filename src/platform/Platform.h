// The operating-system services the library needs, behind small interfaces.
//
// Core code asks `kd::platform()` for everything that differs between macOS
// and Linux. `Platform` itself answers identity, locations, system
// information, the system log and crash reports; the other services sit in
// small interfaces by concern that it hands out, one interface per service:
// `privilege()` (Privilege.h), `volumes()` (mounts and removable media,
// Volumes.h), `fileMetadata()` (FileMetadata.h) and `desktop()` (applications,
// packages and change notices, Desktop.h). One implementation per platform is
// chosen by the build (src/platform/linux now). Tests install a fake with
// `kd::setPlatformForTesting`; each interface has a forwarding base
// (`ForwardingPlatform`, `ForwardingVolumes`, ...) so that a fake overrides
// only what it needs.
//
// Threads: implementations must be callable from any thread. Swapping the
// platform with `setPlatformForTesting` is meant for test set-up, while no other
// thread uses the library.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../common/FileOwner.h"
#include "Desktop.h"
#include "FileMetadata.h"
#include "Privilege.h"
#include "Volumes.h"

namespace kd {

// The platform's search-path directory kinds (numbers are the macOS constants).
enum class DirectoryKind : int {
  Application = 1,
  AdminApplication = 4,
  Library = 5,
  Documentation = 8,
  Document = 9,
  Desktop = 12,
  Caches = 13,
  ApplicationSupport = 14,
  Movies = 17,
  // Composed kinds, not macOS constants: macOS builds them from Library
  // (Library/Preferences, Library/Logs); other platforms keep settings and logs
  // in folders of their own (on Linux the XDG config and state folders).
  Preferences = 1001,
  Logs = 1002,
};

// Search-path domains (macOS numbering); combined as a bit mask.
enum DomainMask : unsigned {
  UserDomainMask = 1,
  LocalDomainMask = 2,
  SystemDomainMask = 8,
};

// A text rule of the root adjustment: a path that begins with `prefix` loses its
// first `drop` characters (which may differ from the prefix length on purpose).
struct KD_EXPORT PrefixDrop {
  std::string prefix;
  std::size_t drop = 0;
};

// What the platform knows of the program's own bundle (macOS) or installation
// (Linux). Every field may be absent.
struct KD_EXPORT BundleInfo {
  std::optional<std::string> executablePath;  // the bundle's executable
  std::optional<std::string> version;         // CFBundleVersion
  std::optional<std::string> name;            // CFBundleName
  std::optional<std::string> resourcesPath;   // folder of the bundle's resources
};

class KD_EXPORT Platform {
 public:
  virtual ~Platform() = default;

  // --- Identity ---------------------------------------------------------
  // The real user id, asked afresh at every call (never cached).
  virtual std::uint32_t realUserId() = 0;
  // The process's home folder (NSHomeDirectory): HOME on Linux.
  virtual std::optional<std::string> homeDirectory() = 0;
  // The home folder of a named user (NSHomeDirectoryForUser).
  virtual std::optional<std::string> homeDirectoryForUser(const std::string& user) = 0;
  // The process's user name (NSUserName).
  virtual std::optional<std::string> userName() = 0;
  // The user and primary group ids of a named user; none for an unknown name.
  virtual std::optional<FileOwner> userIdentifiers(const std::string& user) = 0;
  // The user at the console, as the system reports it. macOS may answer
  // "loginwindow"; callers filter that. None when nobody is logged in.
  virtual std::optional<std::string> consoleUser() = 0;
  // The folder component that holds users' homes: "Users" on macOS, "home" on Linux.
  virtual std::string homesFolderName() = 0;
  // Root-home prefix rules of the root adjustment, applied in order.
  virtual std::vector<PrefixDrop> rootHomeAdjustments() = 0;

  // --- Locations --------------------------------------------------------
  // NSSearchPathForDirectoriesInDomains with tildes expanded.
  virtual std::vector<std::string> searchPathForDirectories(DirectoryKind kind,
                                                            unsigned domainMask) = 0;
  // The per-user cache folder of confstr(_CS_DARWIN_USER_CACHE_DIR), if any.
  virtual std::optional<std::string> userCacheDirectory() = 0;
  // The per-user temporary folder (NSTemporaryDirectory).
  virtual std::string temporaryDirectory() = 0;
  // A string unique to this process and call (globallyUniqueString).
  virtual std::string globallyUniqueString() = 0;
  // The current working directory; none when unreadable or not valid UTF-8.
  virtual std::optional<std::string> currentDirectory() = 0;

  // --- System information ---------------------------------------------------
  virtual std::string osName() = 0;           // "macOS", "Linux"
  virtual std::string osVersionString() = 0;  // as the platform reports it
  virtual long processorCount() = 0;
  virtual std::uint64_t physicalMemory() = 0;  // bytes
  virtual BundleInfo mainBundle() = 0;

  // --- System log -------------------------------------------------------
  // NSLog: one message to the system log (journal or syslog), and a copy on
  // standard error unless the program turned that off
  // (setSystemLogOnStandardError).
  virtual void systemLog(std::string_view message) = 0;

  // --- Crash reports ------------------------------------------------------
  // Arranges that a fatal signal leaves a crash report named
  // <appName>_<YYYY-MM-DD-HHMMSS>_<host>.crash in `reportFolder`. macOS writes
  // its own reports; there this does nothing.
  virtual void installCrashHandler(const std::string& appName, const std::string& reportFolder) = 0;

  // --- Services by concern (see their headers) -----------------------------
  virtual PrivilegeService& privilege() = 0;
  virtual Volumes& volumes() = 0;
  virtual FileMetadata& fileMetadata() = 0;
  virtual Desktop& desktop() = 0;
};

// Forwards every call to another platform; fakes derive from it.
class KD_EXPORT ForwardingPlatform : public Platform {
 public:
  explicit ForwardingPlatform(Platform& target) : target_(target) {}

  std::uint32_t realUserId() override { return target_.realUserId(); }
  std::optional<std::string> homeDirectory() override { return target_.homeDirectory(); }
  std::optional<std::string> homeDirectoryForUser(const std::string& user) override {
    return target_.homeDirectoryForUser(user);
  }
  std::optional<std::string> userName() override { return target_.userName(); }
  std::optional<FileOwner> userIdentifiers(const std::string& user) override {
    return target_.userIdentifiers(user);
  }
  std::optional<std::string> consoleUser() override { return target_.consoleUser(); }
  std::string homesFolderName() override { return target_.homesFolderName(); }
  std::vector<PrefixDrop> rootHomeAdjustments() override { return target_.rootHomeAdjustments(); }
  std::vector<std::string> searchPathForDirectories(DirectoryKind kind,
                                                    unsigned domainMask) override {
    return target_.searchPathForDirectories(kind, domainMask);
  }
  std::optional<std::string> userCacheDirectory() override { return target_.userCacheDirectory(); }
  std::string temporaryDirectory() override { return target_.temporaryDirectory(); }
  std::string globallyUniqueString() override { return target_.globallyUniqueString(); }
  std::optional<std::string> currentDirectory() override { return target_.currentDirectory(); }
  std::string osName() override { return target_.osName(); }
  std::string osVersionString() override { return target_.osVersionString(); }
  long processorCount() override { return target_.processorCount(); }
  std::uint64_t physicalMemory() override { return target_.physicalMemory(); }
  BundleInfo mainBundle() override { return target_.mainBundle(); }
  void systemLog(std::string_view message) override { target_.systemLog(message); }
  void installCrashHandler(const std::string& appName, const std::string& reportFolder) override {
    target_.installCrashHandler(appName, reportFolder);
  }
  PrivilegeService& privilege() override { return target_.privilege(); }
  Volumes& volumes() override { return target_.volumes(); }
  FileMetadata& fileMetadata() override { return target_.fileMetadata(); }
  Desktop& desktop() override { return target_.desktop(); }

 protected:
  Platform& target() { return target_; }

 private:
  Platform& target_;
};

// The platform in use: the build's own, or the one a test installed.
KD_EXPORT Platform& platform();
// The build's own platform implementation (never destroyed).
KD_EXPORT Platform& nativePlatform();
// Whether `Platform::systemLog` also writes each message on standard error
// (the default). A program that tells its user of every failure in its own
// words turns it off, so that a failure is not told twice; the system log
// still gets every message. Process-wide; callable from any thread.
KD_EXPORT void setSystemLogOnStandardError(bool print);
KD_EXPORT bool systemLogOnStandardError();
// Installs a platform for tests; nullptr restores the native one. The caller
// keeps ownership and must keep it alive while installed.
KD_EXPORT void setPlatformForTesting(Platform* fake);

}  // namespace kd
