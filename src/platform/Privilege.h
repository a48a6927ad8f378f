// Administrator rights from the operating system: checking a user's password,
// and a channel to a small privileged co-process that runs tools for us.
//
// The co-process (kd-privileged) is started through the system's own way of
// granting rights (sudo with a password, an interactive prompt, or directly
// when the process already has an effective user id of 0). It takes requests
// only over the pipes made for it and ends when they close.
//
// Ownership: a PrivilegedChannel owns its co-process and the pipes to it;
// destroying the channel ends the co-process and waits for it. Threads: every
// operation may be called from any thread; requests on one channel are
// served one at a time.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kd {

// The answer to one request.
struct KD_EXPORT PrivilegedRun {
  // 0 when the tool was started, -2 when it does not exist, otherwise the
  // system's error number for a start that failed. -1 when the channel broke
  // (the co-process has gone).
  std::int32_t status = -1;
  // For a waited-for run that started: the exit code, or 128 + the signal
  // number when a signal ended the tool.
  std::int32_t exitStatus = -1;
  std::string output;  // standard output of a waited-for run (bounded)
  std::string error;   // standard error of a waited-for run (bounded)
};

class KD_EXPORT PrivilegedChannel {
 public:
  virtual ~PrivilegedChannel() = default;
  // Runs `tool` (an absolute path) with `arguments`, by argv and without a
  // shell. With `wait` the tool's end, output and exit status are awaited.
  virtual PrivilegedRun run(const std::string& tool, const std::vector<std::string>& arguments,
                            bool wait) = 0;
  // False once the co-process has ended.
  virtual bool alive() = 0;
  // The co-process's process id (for diagnostics and tests).
  virtual int coProcessId() const = 0;
};

// Why a channel could not be opened.
enum class PrivilegeFailure {
  None,
  NoMeans,      // no way to ask for rights here (no display agent, no askpass)
  StartFailed,  // the launcher or the co-process could not be started; see `error`
  Refused,      // the system refused rights (wrong password, not an administrator, cancelled)
};

struct KD_EXPORT PrivilegeOpening {
  std::unique_ptr<PrivilegedChannel> channel;
  PrivilegeFailure failure = PrivilegeFailure::None;
  int error = 0;  // the system's error number for StartFailed
};

// The tool names of the co-process's own guarded removal and renaming (not
// paths).
inline constexpr char kGuardedRemove[] = "kd:remove";
inline constexpr char kGuardedRename[] = "kd:rename";

class KD_EXPORT PrivilegeService {
 public:
  virtual ~PrivilegeService() = default;
  // True when the process's effective user id is 0 while its real one is not
  // (a program started with rights by their holder).
  virtual bool hasInheritedRights() = 0;
  // Whether `password` is `user`'s password. Works without rights for the
  // process's own user. The password is not kept.
  virtual bool checkPassword(const std::string& user, const std::string& password) = 0;
  // Starts the co-process `helperPath` with rights obtained from the process
  // user's password, without interaction. The password is not kept.
  virtual PrivilegeOpening openWithPassword(const std::string& helperPath,
                                            const std::string& password) = 0;
  // Starts the co-process with rights the system asks the user for.
  virtual PrivilegeOpening openInteractively(const std::string& helperPath) = 0;
  // Starts the co-process with the rights the process already has.
  virtual PrivilegeOpening openInherited(const std::string& helperPath) = 0;
  // Removes `path` (absolute) with the process's own rights as the
  // co-process removes it: refused (EPERM) when where it really is counts as
  // protected (system places and `keys`), a link removed and never followed,
  // the tree removed through descriptors. 0 when gone or never there,
  // otherwise the system's error number.
  virtual int removeGuarded(const std::string& path, const std::vector<std::string>& keys) = 0;
  // Renames as the co-process renames: the source judged as for
  // removeGuarded, nothing replaced (EEXIST), EXDEV across file systems.
  virtual int renameGuarded(const std::string& source, const std::string& destination,
                            const std::vector<std::string>& keys) = 0;
};

// Forwards every call to another service; fakes derive from it.
class KD_EXPORT ForwardingPrivilegeService : public PrivilegeService {
 public:
  explicit ForwardingPrivilegeService(PrivilegeService& target) : target_(target) {}
  bool hasInheritedRights() override { return target_.hasInheritedRights(); }
  bool checkPassword(const std::string& user, const std::string& password) override {
    return target_.checkPassword(user, password);
  }
  PrivilegeOpening openWithPassword(const std::string& helperPath,
                                    const std::string& password) override {
    return target_.openWithPassword(helperPath, password);
  }
  PrivilegeOpening openInteractively(const std::string& helperPath) override {
    return target_.openInteractively(helperPath);
  }
  PrivilegeOpening openInherited(const std::string& helperPath) override {
    return target_.openInherited(helperPath);
  }
  int removeGuarded(const std::string& path, const std::vector<std::string>& keys) override {
    return target_.removeGuarded(path, keys);
  }
  int renameGuarded(const std::string& source, const std::string& destination,
                    const std::vector<std::string>& keys) override {
    return target_.renameGuarded(source, destination, keys);
  }

 private:
  PrivilegeService& target_;
};

}  // namespace kd
