// The process's one session of administrator rights, and the file commands
// that run with it.
//
// On Linux the session is a privileged co-process of our own (kd-privileged),
// started by sudo with the user's password, by a prompt of the desktop
// (pkexec) or sudo's askpass program, or directly when the process was started
// with an effective user id of 0. A process whose real user id is 0 is
// authorized from the start and runs its tools directly.
//
// Results, not exceptions: the commands answer true for success and log why
// they did not succeed; the launcher answers a status (0 success, -1 not
// authorized, -2 tool missing, otherwise the system's). Every path reaches a
// tool after "--", and the destructive commands refuse system folders twice:
// by the literal guard of KdLocalPaths and by a check of where the path
// really leads (`isProtectedTarget`). Removing and renaming are then judged a
// third time where they happen (the co-process, or this root process) and
// done through descriptors, so that a path whose links lead elsewhere there,
// or change after the check, cannot make them act outside it.
//
// Ownership: one instance per process (`sharedController`), created on first
// use under a lock and never destroyed; it owns the co-process. Threads: every
// operation may be called from any thread; the session's state is guarded by
// a lock, and requests to the co-process are served one at a time.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kd {
class PrivilegedChannel;
}

class KD_EXPORT KdAuthorization {
 public:
  using OptString = std::optional<std::string>;

  // The shared instance; the first call decides whether it may interact with
  // the user (`withGUI`), later calls return it whatever they pass.
  static KdAuthorization& sharedController();
  static KdAuthorization& sharedController(bool withGUI);
  // Makes the shared instance (with a GUI) when there is none yet; nothing
  // (nullptr) when it exists already, so there is never a second one.
  static KdAuthorization* allocate();

  KdAuthorization(const KdAuthorization&) = delete;
  KdAuthorization& operator=(const KdAuthorization&) = delete;

  // --- The session --------------------------------------------------------------
  // Obtains rights, asking the user where the object has a GUI.
  bool authStart();
  // Obtains rights from the process user's name and password, without
  // interaction. Neither is kept.
  bool authStartWithUser(const OptString& user, const OptString& password);
  // Ends the session: the co-process is told to end and waited for.
  void authEnd();
  // True when running as root or while a session (a live co-process, or
  // rights inherited at start) exists.
  bool isAuthorized();
  // True with a GUI; without one only when running as root.
  bool canAuthorize();
  // The home folder at creation, when the process was not root then.
  OptString userDirectory() const { return userDirectory_; }
  bool hasGUI() const;
  void setHasGUI(bool hasGUI);

  // --- The launcher ---------------------------------------------------------------
  // Runs `tool` with `parameters` with administrator rights: asynchronously
  // (the status says whether it started) or waiting (the status is then the
  // tool's exit status).
  std::int32_t authExecTask(const std::string& tool, const std::vector<std::string>& parameters,
                            bool async = true);

  // --- File commands (each waits for its tool and succeeds when it exits 0) --------
  // A move or copy onto an existing destination fails and replaces nothing.
  bool authRemoveFile(const std::string& path);
  bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
  bool authTrashFolderContents(const std::string& path, bool deleteOnRootAccount = false);
  bool authMoveFolderContents(const std::string& source, const std::string& destination);
  bool authMoveFile(const OptString& source, const OptString& destination);
  bool authCopyFile(const OptString& source, const OptString& destination);
  bool authCreateDir(const std::string& path);

  // Whether a privileged command must not act on `path`: "/", the top-level
  // system folders, the first level of /usr and /var, home folders, the
  // standard folders and anything that holds one of them, judged on the path
  // with trailing slashes removed, "." and ".." resolved and the links of its
  // parent folders followed (and the path's own link when a trailing slash
  // makes tools follow it). A path that goes below /proc, /sys or /dev on the
  // way (/proc/self/cwd/..., a link to /dev/fd) is protected too: its links
  // lead elsewhere in the process that acts on it.
  static bool isProtectedTarget(const std::string& path);

  // Where the co-process is looked for: beside the running program, then
  // where it is installed; a copy that others than its owner could change
  // (it or its folder writable by group or others) is passed over.
  static OptString privilegedHelperPath();

 private:
  friend struct KdAuthorizationTestAccess;
  explicit KdAuthorization(bool withGUI);
  ~KdAuthorization();

  // A live channel to the co-process, or none (a dead one is dropped).
  std::shared_ptr<kd::PrivilegedChannel> liveChannel();
  // Replaces the session; the old co-process ends outside the lock.
  void replaceSession(std::shared_ptr<kd::PrivilegedChannel> channel, bool inherited);
  // The session's channel, started (or asked for) when there is none.
  std::shared_ptr<kd::PrivilegedChannel> session();
  // What a tool run with rights wrote, when it exited 0 (not for root).
  std::optional<std::string> outputOf(const std::string& tool,
                                      const std::vector<std::string>& arguments);
  // A folder's entry names, listed with rights when the user may not list it;
  // none when it cannot be listed at all.
  std::optional<std::vector<std::string>> entriesOf(const std::string& folder);
  // The launcher, waiting for the tool: the exit status as an int32, or
  // -1 / -2 / the start error.
  std::int32_t runWaiting(const std::string& tool, const std::vector<std::string>& arguments);
  // Moves without replacing anything (a rename judged where it is made, mv
  // across file systems); true when the item is at its new place.
  bool moveFile(const std::string& source, const std::string& destination);
  // The path made absolute against the working folder (the co-process works
  // in "/"); none when the working folder is unknown.
  static OptString absolutePath(const std::string& path);
  // Refuses a protected path with `message` in the system log.
  bool refuses(const std::string& path, const char* message);
  // Whether `path` goes below /proc, /sys or /dev on the way (see
  // isProtectedTarget); true when it cannot be made absolute.
  static bool reachesKernelTrees(const std::string& path);
  // The user's and the machine's key folders, as written and resolved.
  static std::vector<std::string> protectedKeyFolders();
  // Removes an absolute path with rights, judged again and removed through
  // descriptors where it is removed (the co-process, or this root process).
  bool removeWithRights(const std::string& absolute);
  bool trashInto(const std::string& source, bool deleteOnRootAccount);

  mutable std::mutex mutex_;
  bool hasGUI_;                                     // guarded by mutex_
  bool inherited_ = false;                          // guarded by mutex_
  std::shared_ptr<kd::PrivilegedChannel> channel_;  // guarded by mutex_
  // Serialises session starts, so that two threads never prompt at once.
  std::mutex startMutex_;
  const OptString userDirectory_;
};
