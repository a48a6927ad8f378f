#include "crash/KdBugReporter.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <vector>

#include "common/Folders.h"
#include "common/Path.h"
#include "common/PropertyList.h"
#include "common/SettingsFile.h"
#include "common/UniqueFd.h"
#include "log/KdException.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "paths/UserFiles.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

constexpr char kLaunchKey[] = "launch";
constexpr char kExitKey[] = "exit";
constexpr char kGlobalPrefsName[] = "com.quillfen.global.plist";
constexpr char kDisableKey[] = "disable-crash-reporter";
constexpr char kBugReporterName[] = "Bug Reporter";
constexpr char kBugReporterBundleId[] = "com.quillfen.BugReporter";

// The record file: the given path, or the application's defaults file.
std::optional<std::string> recordPath(const std::optional<std::string>& plistPath) {
  if (plistPath) return plistPath;
  return KdBugReporter::userDefaultsPath();
}

std::optional<std::string> applicationName(const std::optional<std::string>& appName) {
  if (appName) return appName;
  return kd::platform().mainBundle().name;
}

void recordDate(const std::optional<std::string>& plistPath, const char* key) {
  auto path = recordPath(plistPath);
  if (!path) return;
  // A fresh account may have no preferences folder yet. What a root run makes
  // in a home belongs to that home's user, the record file included; it is
  // handed over by descriptor before it takes its name.
  const auto owner = kd::ownerForUserPath(*path);
  (void)kd::createFolders(kd::path::deletingLastComponent(*path), 0700, owner);
  // A record file that cannot be read is left alone, a damaged one kept aside:
  // it may be a settings file that holds another program's keys.
  kd::Settings record = kd::loadSettings(*path, !owner);
  if (!record.message.empty()) KdLog::appendLog("%@", record.message);
  record.dict[key] = kd::PlistValue(std::chrono::system_clock::now());
  kd::saveSettings(record, *path, owner);
}

bool startsWithIgnoringCase(const std::string& text, const std::string& prefix) {
  if (text.size() < prefix.size()) return false;
  auto lower = [](unsigned char c) { return c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c; };
  for (std::size_t i = 0; i < prefix.size(); ++i)
    if (lower(static_cast<unsigned char>(text[i])) != lower(static_cast<unsigned char>(prefix[i])))
      return false;
  return true;
}

// The last entry, in the order the folder lists them, whose name starts with
// `prefix`; none when the folder is unreadable or holds no such entry.
std::optional<std::string> lastMatchingEntry(const std::string& folder, const std::string& prefix) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
  if (!dir) return std::nullopt;
  std::optional<std::string> last;
  while (const dirent* entry = ::readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (startsWithIgnoringCase(name, prefix)) last = std::move(name);
  }
  return last;
}

std::optional<kd::PlistDate> modificationDate(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
  auto since1970 =
      std::chrono::seconds(st.st_mtim.tv_sec) + std::chrono::nanoseconds(st.st_mtim.tv_nsec);
  return kd::PlistDate(std::chrono::duration_cast<kd::PlistDate::duration>(since1970));
}

std::vector<std::string> crashReportFolders() {
  std::vector<std::string> folders;
  for (bool userDomain : {true, false}) {
    auto logs = KdLocalPaths::logDirectory(userDomain);
    if (!logs) continue;
    folders.push_back(kd::path::append(*logs, "CrashReporter"));
    folders.push_back(kd::path::append(*logs, "DiagnosticReports"));
  }
  return folders;
}

std::optional<std::string> findCrashReport(const std::string& name, kd::PlistDate launch) {
  for (const auto& folder : crashReportFolders()) {
    auto entry = lastMatchingEntry(folder, name + "_");
    if (!entry) continue;
    std::string report = kd::path::append(folder, *entry);
    if (auto modified = modificationDate(report); modified && *modified > launch) return report;
  }
  return std::nullopt;
}

bool crashReporterDisabled() {
  auto prefs = KdLocalPaths::prefsDirectory(true);
  if (!prefs) return false;
  return kd::plistFlagIsSet(
      kd::readPlistDictionaryOrEmpty(kd::path::append(*prefs, kGlobalPrefsName)), kDisableKey);
}

void openWithBugReporter(const std::string& report) {
  kd::Desktop& desktop = kd::platform().desktop();
  if (auto app = desktop.bundledApplication(kBugReporterName))
    desktop.openFileWithApplication(report, *app);
  else
    desktop.openFileWithBundleIdentifier(report, kBugReporterBundleId);
}

}  // namespace

void KdBugReporter::startBugReporter(OptString appName, OptString plistPath,
                                     const KdBugReporterDelegate* delegate) {
  try {
    OptString report = checkForCrashes(appName, plistPath);
    // The system writes no crash reports on Linux: this run's own handler
    // writes them where the next check looks first among the user's folders.
    if (auto name = applicationName(appName); name && !name->empty()) {
      if (auto logs = KdLocalPaths::logDirectory(true))
        kd::platform().installCrashHandler(*name, kd::path::append(*logs, "DiagnosticReports"));
    }
    recordDate(plistPath, kLaunchKey);
    // There is no run loop to post to: the delegate hears of the crash last,
    // on this (the main) thread, as it would once the start-up work is done.
    if (report && delegate && delegate->applicationDidCrashWithLog)
      delegate->applicationDidCrashWithLog(*report);
  } catch (const std::exception& e) {
    KdException::logException(e, "+[KdBugReporter startBugReporter:plistPath:delegate:]");
  }
}

void KdBugReporter::startBugReporterWithDelegate(const KdBugReporterDelegate* delegate) {
  startBugReporter(std::nullopt, std::nullopt, delegate);
}

void KdBugReporter::stopBugReporter(OptString plistPath) {
  try {
    recordDate(plistPath, kExitKey);
  } catch (const std::exception& e) {
    KdException::logException(e, "+[KdBugReporter stopBugReporter:]");
  }
}

KdBugReporter::OptString KdBugReporter::checkForCrashes(OptString appName, OptString plistPath) {
  try {
    auto path = recordPath(plistPath);
    if (!path) return std::nullopt;
    auto record = kd::readPlistDictionary(*path);
    if (!record) return std::nullopt;
    auto launch = kd::plistDate(*record, kLaunchKey);
    if (!launch) return std::nullopt;
    auto name = applicationName(appName);
    // An exit at or after the launch means the last run ended normally.
    if (auto exit = kd::plistDate(*record, kExitKey); exit && *exit >= *launch) return std::nullopt;
    if (!name) return std::nullopt;

    auto report = findCrashReport(*name, *launch);
    if (!report) return std::nullopt;
    KdLog::appendLog("Application crashed on last launch");
    if (crashReporterDisabled()) {
      kd::platform().systemLog("Crash reporter disabled");
      KdLog::appendLog("Crash reporter disabled");
      return report;
    }
    openWithBugReporter(*report);
    return report;
  } catch (const std::exception& e) {
    KdException::logException(e, "+[KdBugReporter checkForCrashes:plistPath:]");
    return std::nullopt;
  }
}

void KdBugReporter::chownPlist(const std::string& path) {
  try {
    auto owner = kd::ownerOfHomePath(path);
    if (!owner) return;
    // By descriptor, never through a link, and never a file with other names
    // (a hard link the user made to someone else's file): the user may change
    // what lies at this path at any moment.
    kd::UniqueFd fd(kd::retryOnEintr([&] {
      return ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }));
    struct stat st {};
    if (!fd || ::fstat(fd.get(), &st) != 0) return;
    bool plainFile = S_ISREG(st.st_mode) && st.st_nlink == 1;
    if ((plainFile || S_ISDIR(st.st_mode)) && st.st_uid != owner->uid)
      (void)::fchown(fd.get(), owner->uid, static_cast<gid_t>(-1));
  } catch (const std::exception& e) {
    KdException::logException(e, "+[KdBugReporter chownPlist:]");
  }
}

KdBugReporter::OptString KdBugReporter::userDefaultsPath() {
  auto name = kd::platform().mainBundle().name;
  if (!name || name->empty()) return std::nullopt;
  auto prefs = KdLocalPaths::prefsDirectory(true);
  if (!prefs) return std::nullopt;
  return kd::path::append(*prefs, *name + ".plist");
}
