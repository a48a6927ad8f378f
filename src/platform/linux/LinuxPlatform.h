// The Linux implementation of kd::Platform.
//
// Definitions are split by concern: LinuxPlatform.cpp (identity, system
// information, system log), Locations.cpp (XDG folders), ConsoleUser.cpp
// (logind / utmp), Workspace.cpp (removable media, running applications,
// opening files), CrashHandler.cpp (crash reports), Privilege.cpp
// (administrator rights), and the services by concern: LinuxVolumes.cpp,
// LinuxFileMetadata.cpp, LinuxDesktop.cpp.
//
// Stateless apart from what the crash handler installs; callable from any thread.
#pragma once

#ifndef __linux__
#error "LinuxPlatform is built on Linux only"
#endif

#include "platform/Platform.h"

namespace kd {

class LinuxPlatform final : public Platform {
 public:
  std::uint32_t realUserId() override;
  std::optional<std::string> homeDirectory() override;
  std::optional<std::string> homeDirectoryForUser(const std::string& user) override;
  std::optional<std::string> userName() override;
  std::optional<FileOwner> userIdentifiers(const std::string& user) override;
  std::optional<std::string> consoleUser() override;
  std::string homesFolderName() override;
  std::vector<PrefixDrop> rootHomeAdjustments() override;

  std::vector<std::string> searchPathForDirectories(DirectoryKind kind,
                                                    unsigned domainMask) override;
  std::optional<std::string> userCacheDirectory() override;
  std::string temporaryDirectory() override;
  std::string globallyUniqueString() override;
  std::optional<std::string> currentDirectory() override;

  std::string osName() override;
  std::string osVersionString() override;
  long processorCount() override;
  std::uint64_t physicalMemory() override;
  BundleInfo mainBundle() override;

  void systemLog(std::string_view message) override;

  std::vector<std::string> mountedRemovableMedia() override;
  bool isApplicationRunning(std::string_view bundleIdentifier) override;
  bool isFilePackage(const std::string& path) override;
  std::optional<std::string> bundledApplication(const std::string& name) override;
  bool openFileWithApplication(const std::string& file,
                               const std::string& applicationPath) override;
  bool openFileWithBundleIdentifier(const std::string& file,
                                    std::string_view bundleIdentifier) override;

  void installCrashHandler(const std::string& appName, const std::string& reportFolder) override;

  PrivilegeService& privilege() override;  // Privilege.cpp
  Volumes& volumes() override;
  FileMetadata& fileMetadata() override;
  Desktop& desktop() override;
};

}  // namespace kd
