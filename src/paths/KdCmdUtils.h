// Process-wide facts of the program: whether it has a graphical interface, and
// its application path (the working directory it was started in).
//
// The singleton is created on first use under a lock and never destroyed; the
// flag itself is not locked.
#pragma once

#include "../KdExport.h"

#include <atomic>
#include <optional>
#include <string>

class KD_EXPORT KdCmdUtils {
 public:
  static KdCmdUtils& sharedController();
  // The current working directory; none when it is not valid UTF-8.
  static std::optional<std::string> applicationPath();

  bool hasGUI() const { return hasGUI_.load(std::memory_order_relaxed); }
  void setHasGUI(bool value) { hasGUI_.store(value, std::memory_order_relaxed); }

  KdCmdUtils(const KdCmdUtils&) = delete;
  KdCmdUtils& operator=(const KdCmdUtils&) = delete;

 private:
  KdCmdUtils() = default;
  std::atomic<bool> hasGUI_{true};
};
