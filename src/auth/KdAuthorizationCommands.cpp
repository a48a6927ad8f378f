// The privileged file commands: each is one standard tool run through the
// launcher, waited for, and successful only when the tool exits 0. A move or
// copy never replaces what is at its destination.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "log/Format.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace {

constexpr char kMv[] = "/bin/mv";
constexpr char kCp[] = "/bin/cp";
constexpr char kMkdir[] = "/bin/mkdir";
constexpr char kFind[] = "/usr/bin/find";

constexpr char kRefuseDelete[] = "Unable to delete path %@ because it is a system directory.";
constexpr char kRefuseTrash[] = "Unable to trash path %@ because it is a system directory.";
constexpr char kRefuseTrashContents[] =
    "Unable to trash folder contents of path %@ because it is a system directory.";
constexpr char kRefuseMoveContents[] =
    "Unable to move contents of path %@ because it is a system directory.";
constexpr char kRefuseMove[] = "Unable to move path %@ because it is a system directory.";

void systemLog(std::string_view message) {
  kd::platform().systemLog(message);
}

// Something is there, or may be: a place we may not look into counts as
// present, so that the privileged tool decides.
bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

bool mayExist(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace

std::optional<std::vector<std::string>> KdAuthorization::entriesOf(const std::string& folder) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
  if (!dir) {
    if (errno == ENOENT || errno == ENOTDIR) return names;  // nothing there: nothing to do
    // A folder the user may not read is listed with rights, names ending in NUL.
    std::optional<std::string> listed =
        outputOf(kFind, {"-H", folder, "-mindepth", "1", "-maxdepth", "1", "-printf", "%f\\0"});
    if (!listed) return std::nullopt;
    for (std::size_t start = 0, end; (end = listed->find('\0', start)) != std::string::npos;
         start = end + 1)
      names.push_back(listed->substr(start, end - start));
    return names;
  }
  while (dirent* entry = ::readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(std::move(name));
  }
  return names;
}

bool KdAuthorization::refuses(const std::string& path, const char* message) {
  if (!KdLocalPaths::isPathSystemDirectory(path, true) && !isProtectedTarget(path)) return false;
  systemLog(kd::format(message, path));
  return true;
}

std::int32_t KdAuthorization::runWaiting(const std::string& tool,
                                         const std::vector<std::string>& arguments) {
  return authExecTask(tool, arguments, /*async=*/false);
}

bool KdAuthorization::removeWithRights(const std::string& absolute) {
  // The place is judged again where the removal happens: a path's links may
  // lead elsewhere there, or change between this check and that one.
  const std::vector<std::string> keys = protectedKeyFolders();
  if (KdLocalPaths::isRoot()) return kd::platform().privilege().removeGuarded(absolute, keys) == 0;
  std::shared_ptr<kd::PrivilegedChannel> channel = session();
  if (!channel) return false;
  std::vector<std::string> arguments{absolute};
  arguments.insert(arguments.end(), keys.begin(), keys.end());
  kd::PrivilegedRun run = channel->run(kd::kGuardedRemove, arguments, true);
  if (run.status == -1) liveChannel();  // drops the session when the co-process has gone
  return run.status == 0 && run.exitStatus == 0;
}

bool KdAuthorization::authRemoveFile(const std::string& path) {
  if (refuses(path, kRefuseDelete)) return false;
  OptString target = absolutePath(path);
  return target && removeWithRights(*target);
}

bool KdAuthorization::moveFile(const std::string& source, const std::string& destination) {
  // Renamed where it is judged, through descriptors, when both lie on one
  // file system; mv copies across file systems.
  const std::vector<std::string> keys = protectedKeyFolders();
  int renamed = EPERM;
  if (KdLocalPaths::isRoot()) {
    renamed = kd::platform().privilege().renameGuarded(source, destination, keys);
  } else if (std::shared_ptr<kd::PrivilegedChannel> channel = session()) {
    std::vector<std::string> arguments{source, destination};
    arguments.insert(arguments.end(), keys.begin(), keys.end());
    kd::PrivilegedRun run = channel->run(kd::kGuardedRename, arguments, true);
    if (run.status == -1) liveChannel();  // drops the session when the co-process has gone
    renamed = run.status == 0 ? run.exitStatus : EPERM;
  }
  if (renamed != EXDEV) return renamed == 0;
  // Never onto something that is there, and never into a folder of the
  // destination's name. mv -n reports success when it skips: look.
  return runWaiting(kMv, {"-n", "-T", "--", source, destination}) == 0 && mayExist(destination) &&
         !exists(source);
}

bool KdAuthorization::authMoveFile(const OptString& source, const OptString& destination) {
  if (!source) {
    systemLog("Error in authMoveFile: old path is null");
    return false;
  }
  if (!destination) {
    systemLog("Error in authMoveFile: new path is null");
    return false;
  }
  if (refuses(*source, kRefuseMove)) return false;
  // A destination through the kernel's links would be another place for mv.
  if (reachesKernelTrees(*destination)) return false;
  OptString from = absolutePath(*source), to = absolutePath(*destination);
  if (!from || !to || !mayExist(*from) || mayExist(*to)) return false;
  return moveFile(*from, *to);
}

bool KdAuthorization::authCopyFile(const OptString& source, const OptString& destination) {
  if (!source) {
    systemLog("Error in authCopyFile: old path is null");
    return false;
  }
  if (!destination) {
    systemLog("Error in authCopyFile: new path is null");
    return false;
  }
  // Not judged by the guard, but a path through the kernel's links would
  // name another place for cp than the one looked at here.
  if (reachesKernelTrees(*source) || reachesKernelTrees(*destination)) return false;
  OptString from = absolutePath(*source), to = absolutePath(*destination);
  // As the move: never onto or into what is there.
  if (!from || !to || !mayExist(*from) || mayExist(*to)) return false;
  // --preserve=all keeps extended attributes (labels, tags) where the
  // destination holds them, and says nothing where it does not.
  return runWaiting(kCp, {"-n", "--preserve=all", "-R", "-T", "--", *from, *to}) == 0 &&
         mayExist(*to);
}

bool KdAuthorization::authCreateDir(const std::string& path) {
  if (reachesKernelTrees(path)) return false;
  OptString target = absolutePath(path);
  if (!target || runWaiting(kMkdir, {"-p", "--", *target}) != 0) return false;
  if (!KdLocalPaths::isRoot()) ::usleep(500);
  return true;
}

bool KdAuthorization::authTrashFile(const std::string& path, bool deleteOnRootAccount) {
  if (refuses(path, kRefuseTrash)) return false;
  OptString source = absolutePath(path);
  return source && trashInto(*source, deleteOnRootAccount);
}

bool KdAuthorization::authTrashFolderContents(const std::string& path, bool deleteOnRootAccount) {
  if (refuses(path, kRefuseTrashContents)) return false;
  OptString folder = absolutePath(path);
  if (!folder) return false;
  // A folder that cannot be listed, even with rights, is not reported as emptied.
  std::optional<std::vector<std::string>> names = entriesOf(*folder);
  if (!names) return false;
  const bool removeInstead = deleteOnRootAccount && !userDirectory_ && KdLocalPaths::isRoot();
  bool allDone = true;
  for (const std::string& name : *names) {
    const std::string entry = kd::path::append(*folder, name);
    const bool done = removeInstead ? removeWithRights(entry) : authTrashFile(entry);
    allDone = allDone && done;
  }
  return allDone;
}

bool KdAuthorization::authMoveFolderContents(const std::string& source,
                                             const std::string& destination) {
  if (refuses(source, kRefuseMoveContents)) return false;
  OptString from = absolutePath(source), to = absolutePath(destination);
  if (!from || !to) return false;
  std::optional<std::vector<std::string>> names = entriesOf(*from);
  if (!names) return false;
  bool allDone = true;
  for (const std::string& name : *names) {
    const bool done = authMoveFile(kd::path::append(*from, name), kd::path::append(*to, name));
    allDone = allDone && done;
  }
  return allDone;
}
