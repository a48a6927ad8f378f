// A platform that answers as macOS would, for tests of the text rules.
//
// Identity, homes and the search-path table are those of macOS; the homes
// folder ("/Users") and root's home ("/var/root") can be moved below a
// temporary folder for tests that write files. Everything not overridden
// forwards to the native platform. Install it with ScopedPlatform.
//
// Threads: configure before installing; the answers may then be read from any
// thread. Fields marked "guarded" may be changed while installed.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace kd::test {

class FakeMacPlatform : public ForwardingPlatform {
 public:
  FakeMacPlatform();

  // Configuration (guarded: may change while installed).
  void setUid(std::uint32_t uid);
  void setUser(std::string user);  // the process's user when not root
  void setConsoleUser(std::optional<std::string> user);
  void setHomesRoot(std::string root);  // default "/Users"
  void setRootHome(std::string home);   // default "/var/root"
  // Replaces the lookup's answer for one kind and domain mask.
  void setSearchPath(DirectoryKind kind, unsigned domainMask, std::vector<std::string> paths);
  void setMountedMedia(std::vector<std::string> media);
  void setRunningBundleIds(std::vector<std::string> ids);
  void setCurrentDirectory(std::optional<std::string> dir);
  // Messages sent to the system log.
  std::vector<std::string> systemLogMessages() const;

  std::uint32_t realUserId() override;
  std::optional<std::string> homeDirectory() override;
  std::optional<std::string> homeDirectoryForUser(const std::string& user) override;
  std::optional<std::string> userName() override;
  std::optional<std::string> consoleUser() override;
  std::string homesFolderName() override { return "Users"; }
  std::vector<PrefixDrop> rootHomeAdjustments() override;
  std::vector<std::string> searchPathForDirectories(DirectoryKind kind,
                                                    unsigned domainMask) override;
  std::optional<std::string> userCacheDirectory() override;
  std::string temporaryDirectory() override;
  std::optional<std::string> currentDirectory() override;
  std::string osName() override { return "macOS"; }
  std::string osVersionString() override { return "Version 14.5 (Build 23F79)"; }
  void systemLog(std::string_view message) override;
  std::vector<std::string> mountedRemovableMedia() override;
  bool isApplicationRunning(std::string_view bundleIdentifier) override;

 private:
  mutable std::mutex mu_;
  std::uint32_t uid_ = 501;
  std::string user_ = "bob";
  std::optional<std::string> console_ = "bob";
  std::string homesRoot_ = "/Users";
  std::string rootHome_ = "/var/root";
  std::map<std::pair<int, unsigned>, std::vector<std::string>> overrides_;
  std::vector<std::string> media_;
  std::vector<std::string> running_;
  std::optional<std::optional<std::string>> cwd_;
  std::vector<std::string> systemLog_;
};

// Installs a platform for the scope of a test and restores the native one.
class ScopedPlatform {
 public:
  explicit ScopedPlatform(Platform& p) { setPlatformForTesting(&p); }
  ~ScopedPlatform() { setPlatformForTesting(nullptr); }
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;
};

}  // namespace kd::test
