#include "paths/KdCmdUtils.h"

#include <mutex>

#include "platform/Platform.h"

KdCmdUtils& KdCmdUtils::sharedController() {
  // Created under the class lock on first use and never destroyed, so that it
  // outlives every thread that might still ask for it at exit.
  static std::mutex classLock;
  static KdCmdUtils* instance = nullptr;
  std::lock_guard lock(classLock);
  if (!instance) instance = new KdCmdUtils();
  return *instance;
}

std::optional<std::string> KdCmdUtils::applicationPath() {
  // The working directory, not the executable: whatever starts the helper sets
  // it to the main application's bundle folder.
  return kd::platform().currentDirectory();
}
