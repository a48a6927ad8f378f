// Crash watching: records when the application starts and stops, decides at
// the next start whether the previous run crashed, and then hands the newest
// crash report to the separate bug-reporter application.
//
// The run record holds two dates, "launch" and "exit". It is kept in a
// property-list file: the one at the given record path, or, without one, the
// application's own defaults file (`userDefaultsPath`). Either file is written
// atomically and then handed to the user whose home folder holds it
// (`chownPlist`).
//
// Crash reports are looked for in the "CrashReporter" and "DiagnosticReports"
// folders of the user's log folder, then of the machine's. Where the system
// writes no reports itself (Linux), `startBugReporter` installs a handler that
// writes them into the user's "DiagnosticReports" folder.
//
// Stateless class operations; nothing here throws. Meant for the main thread at
// the start and end of a run; any single thread will do.
#pragma once

#include "../KdExport.h"

#include <functional>
#include <optional>
#include <string>

// What the application may want to hear about a crash of its previous run. An
// empty function is an operation the delegate does not answer.
struct KD_EXPORT KdBugReporterDelegate {
  // The path of the crash report that proves the previous run crashed.
  std::function<void(const std::string& crashLogPath)> applicationDidCrashWithLog;
};

class KD_EXPORT KdBugReporter {
 public:
  using OptString = std::optional<std::string>;

  // Checks for a crash of the previous run (and opens its report with the bug
  // reporter), arranges for crash reports of this run, and records "launch".
  // The application name defaults to the main bundle's name. The delegate,
  // when given and answering, hears of a crash after everything else is done,
  // on the calling thread, before this returns. The caller keeps the delegate.
  static void startBugReporter(OptString appName = std::nullopt, OptString plistPath = std::nullopt,
                               const KdBugReporterDelegate* delegate = nullptr);
  static void startBugReporterWithDelegate(const KdBugReporterDelegate* delegate);

  // Records "exit": the run ended normally.
  static void stopBugReporter(OptString plistPath = std::nullopt);

  // The path of the crash report that proves the previous run crashed, or
  // none. When there is one, logs "Application crashed on last launch" and,
  // unless the "disable-crash-reporter" preference is set, opens the report
  // with the bug reporter.
  static OptString checkForCrashes(OptString appName = std::nullopt,
                                   OptString plistPath = std::nullopt);

  // Gives a file or folder below a home folder ("/Users/<user>/…" on macOS,
  // "/home/<user>/…" on Linux) to that user; any other path is left alone.
  // Done by descriptor: a link at the path, or a file with more than one
  // name, is left alone, so the user cannot steer it at someone else's file.
  // Failures are not reported.
  static void chownPlist(const std::string& path);

  // The run record used without a record path: "<name>.plist" in the user's
  // preferences folder, <name> being the main bundle's name. None when either
  // is unknown.
  static OptString userDefaultsPath();
};
