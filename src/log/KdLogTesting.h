// Test-only access to the log singleton: tests share one process, so each
// starts from a log with no file, no stored name and logging enabled.
//
// Call only while no other thread uses the log.
#pragma once

#include "log/KdLog.h"

struct KdLogTestAccess {
  // Waits for the writer, closes the file and clears every state of the
  // singleton (name, counters, disabled and ended states).
  static void reset();
};
