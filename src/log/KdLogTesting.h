// Test-only access to the log singleton: tests share one process, so each
// starts from a log with no file, no stored name and logging enabled.
//
// Call only while no other thread uses the log.
#pragma once

#include <functional>
#include <string>

#include "log/KdLog.h"

struct KdLogTestAccess {
  // Waits for the writer, closes the file and clears every state of the
  // singleton (name, counters, disabled and ended states).
  static void reset();
  // Calls `hook` on the writer thread with the path of the oldest log just
  // before rotation removes it, so that a test can keep what it held. An
  // empty function removes the hook.
  static void setBeforeRemovingOldest(std::function<void(const std::string&)> hook);
};
