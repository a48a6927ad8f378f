// The Linux implementation of kd::Platform.
//
// Definitions are split by concern: LinuxPlatform.cpp (identity, system
// information, system log), Locations.cpp (XDG folders), ConsoleUser.cpp
// (logind / utmp), CrashHandler.cpp (crash reports), and the services by
// concern: Privilege.cpp (administrator rights), LinuxVolumes.cpp (mounts and
// removable media), LinuxFileMetadata.cpp, LinuxDesktop.cpp (applications,
// packages, change notices).
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

  void installCrashHandler(const std::string& appName, const std::string& reportFolder) override;

  PrivilegeService& privilege() override;
  Volumes& volumes() override;
  FileMetadata& fileMetadata() override;
  Desktop& desktop() override;
};

}  // namespace kd
