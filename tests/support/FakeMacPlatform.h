// A platform that answers as macOS would, for tests of the text rules.
//
// Identity, homes and the search-path table are those of macOS; the homes
// folder ("/Users") can be moved below a temporary folder for tests that
// write files; no media are mounted and no application runs. Everything not overridden
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
  void setUid(std::uint32_t uid) { set(uid_, uid); }
  void setUser(std::string user) { set(user_, std::move(user)); }  // the user when not root
  void setConsoleUser(std::optional<std::string> user) { set(console_, std::move(user)); }
  void setHomesRoot(std::string root) { set(homesRoot_, std::move(root)); }  // default "/Users"
  // Replaces the lookup's answer for one kind and domain mask.
  void setSearchPath(DirectoryKind kind, unsigned domainMask, std::vector<std::string> paths) {
    set(overrides_[{static_cast<int>(kind), domainMask}], std::move(paths));
  }
  void setCurrentDirectory(std::optional<std::string> dir) { set(cwd_, std::move(dir)); }
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
  // The machine's volumes, but no drive folders of its own (on macOS the
  // "/Volumes" text rule alone decides whether a drive is mounted) and no
  // removable media: the fake never asks the machine for those.
  Volumes& volumes() override { return volumes_; }
  // The machine's desktop, but no application runs.
  Desktop& desktop() override { return desktop_; }

 private:
  template <class Field, class Value>
  void set(Field& field, Value&& value) {
    std::lock_guard l(mu_);
    field = std::forward<Value>(value);
  }
  static constexpr char kRootHome[] = "/var/root";
  struct MacVolumes : ForwardingVolumes {
    using ForwardingVolumes::ForwardingVolumes;
    std::vector<std::string> mountedRemovableMedia() override { return {}; }
    bool isDriveFolderMounted(const std::string&) override { return true; }
  };
  struct MacDesktop : ForwardingDesktop {
    using ForwardingDesktop::ForwardingDesktop;
    bool isApplicationRunning(std::string_view) override { return false; }
  };
  MacVolumes volumes_{nativePlatform().volumes()};
  MacDesktop desktop_{nativePlatform().desktop()};
  mutable std::mutex mu_;
  std::uint32_t uid_ = 501;
  std::string user_ = "bob";
  std::optional<std::string> console_ = "bob";
  std::string homesRoot_ = "/Users";
  std::map<std::pair<int, unsigned>, std::vector<std::string>> overrides_;
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
