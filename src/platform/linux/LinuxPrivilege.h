// Administrator rights on Linux: PAM checks a password, sudo or pkexec start
// the co-process kd-privileged with root's rights.
//
// - With a password: "sudo -k -S -p '' -- <helper>", the password written on
//   sudo's standard input only (never on a command line, in the environment
//   or in a file) and wiped from our buffers once written.
// - Interactively: "pkexec <helper>" where a display is set and pkexec exists
//   (a polkit agent asks), else "sudo -k -A -- <helper>" where SUDO_ASKPASS
//   names a program.
// - Inherited (effective user id 0): the helper is started directly.
//
// The launchers run in a session of their own, so that sudo never takes a
// terminal. Tests build one with other tools (a stand-in for pkexec).
//
// Stateless apart from its configuration; callable from any thread.
#pragma once

#ifndef __linux__
#error "LinuxPrivilege is built on Linux only"
#endif

#include <string>

#include "platform/Privilege.h"

namespace kd {

class LinuxPrivilege final : public PrivilegeService {
 public:
  struct Config {
    std::string sudo = "/usr/bin/sudo";
    std::string pkexec = "/usr/bin/pkexec";
    std::string pamService = "sudo";
    // How long a start may take: sudo with a password answers in seconds; a
    // prompt waits for the person.
    int passwordStartTimeoutMs = 30000;
    int interactiveStartTimeoutMs = 300000;
    // The co-process must report an effective user id of 0; tests that run a
    // stand-in launcher without rights turn this off.
    bool requireRoot = true;
  };

  LinuxPrivilege() = default;
  explicit LinuxPrivilege(Config config) : config_(std::move(config)) {}

  bool hasInheritedRights() override;
  bool checkPassword(const std::string& user, const std::string& password) override;
  PrivilegeOpening openWithPassword(const std::string& helperPath,
                                    const std::string& password) override;
  PrivilegeOpening openInteractively(const std::string& helperPath) override;
  PrivilegeOpening openInherited(const std::string& helperPath) override;
  int removeGuarded(const std::string& path, const std::vector<std::string>& keys) override;
  int renameGuarded(const std::string& source, const std::string& destination,
                    const std::vector<std::string>& keys) override;

 private:
  Config config_;
};

}  // namespace kd
