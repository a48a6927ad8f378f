// The process-wide application log.
//
// Ownership: one instance, created on first use and never destroyed. Threads:
// every operation may be called from any thread; formatting runs on the caller's
// thread and file writes on the log's own serial writer thread, in queue order.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Format.h"

class KD_EXPORT KdLog {
 public:
  // The one instance; the first call creates it and starts the writer thread.
  static KdLog& sharedController();

  KdLog(const KdLog&) = delete;
  KdLog& operator=(const KdLog&) = delete;

  // Rotates the older logs, creates a fresh <appName>.1.log and queues its
  // header; waits for the lines queued before it. Problems go to stdout.
  static void createNewLog(std::optional<std::string> name = std::nullopt);

  // Formats (after escapeTextForLogging) and queues one line. From a thread
  // other than the main thread, a line under 100 characters waits until it is
  // written while the backlog is small.

  template <class... Args>
  static void appendLog(std::string_view format, const Args&... args) {
    if (!acceptsLines()) return;
    appendFormatted(kd::format(escapeTextForLogging(format), args...), /*mayWait=*/true);
  }
  // As appendLog, never waiting.
  template <class... Args>
  static void fastAppendLog(std::string_view format, const Args&... args) {
    if (!acceptsLines()) return;
    appendFormatted(kd::format(escapeTextForLogging(format), args...), /*mayWait=*/false);
  }
  // Logs the line (formatted a second time) and prints it on stdout.
  template <class... Args>
  static void appendLogAndPrint(std::string_view format, const Args&... args) {
    if (!acceptsLines()) return;
    appendAndPrint(kd::format(escapeTextForLogging(format), args...), /*print=*/true);
  }
  template <class... Args>
  static void appendLogAndDebugPrint(std::string_view format, const Args&... args) {
    if (!acceptsLines()) return;
    appendAndPrint(kd::format(escapeTextForLogging(format), args...), /*print=*/false);
  }
  template <class... Args>
  static void debugPrint(std::string_view, const Args&...) {}

  static std::string escapeTextForLogging(std::string_view text);
  // The existing <appName>.1.log to .5.log of the user's log folder, newest first.
  static std::vector<std::string> availableLogs();
  // Whether the log prints its own troubles on stdout ("Unable to log the
  // following information: ...", "Unable to create folder ...", "Logging is
  // disabled"); on by default. A command-line front-end that reports failures
  // in its own words turns it off where the log is no concern of its user.
  static void setPrintsOwnTroubles(bool print);
  // Waits until everything queued before the call is written; returns at once
  // on the writer thread.
  static void finishWriting();
  // Ends the log: a backlog of 11 or more operations is dropped, a shorter one
  // written; the file is closed and later lines go nowhere.
  static void willTerminate();

  // Instance operations.
  void appendTextToLog(std::string_view text);
  // The stored name, else the executable's file name without extension; ""
  // when neither exists.
  std::string appName() const;
  void setAppName(std::optional<std::string> name);
  std::uint64_t bytesWritten() const;
  std::uint64_t bytesInQueue() const;
  bool loggingDisabled() const;

 private:
  struct Impl;
  friend struct Impl;
  friend struct KdLogTestAccess;

  KdLog();
  ~KdLog() = delete;  // never destroyed: threads may log during exit
  static bool acceptsLines();
  static void appendFormatted(std::string text, bool mayWait);
  static void appendAndPrint(std::string text, bool print);
  void enqueueLine(std::string text);
  // As appName(), absent (rather than "") when there is no name at all.
  std::optional<std::string> appNameIfAny() const;

  Impl& impl_;
};
