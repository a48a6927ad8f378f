#include "crash/KdBugReporter.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <vector>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "log/KdException.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

constexpr char kLaunchKey[] = "launch";
constexpr char kExitKey[] = "exit";
constexpr char kGlobalPrefsName[] = "com.quillfen.global.plist";
constexpr char kDisableKey[] = "disable-crash-reporter";
constexpr char kBugReporterName[] = "Bug Reporter";
constexpr char kBugReporterBundleId[] = "com.quillfen.BugReporter";
constexpr double kChownTimeout = 5.0;

// macOS keeps chown in /usr/sbin, Linux in /usr/bin (or /bin on systems whose
// /bin is not merged into /usr); the first one present is the system's.
std::string chownTool() {
  for (const char* candidate : {"/usr/sbin/chown", "/usr/bin/chown", "/bin/chown"})
    if (KdTaskEx::isExecutableTool(candidate)) return candidate;
  return "/usr/sbin/chown";  // the runner then logs that it is not executable
}

// The record file: the given path, or the application's defaults file.
std::optional<std::string> recordPath(const std::optional<std::string>& plistPath) {
  if (plistPath) return plistPath;
  return KdBugReporter::userDefaultsPath();
}

std::optional<std::string> applicationName(const std::optional<std::string>& appName) {
  if (appName) return appName;
  return kd::platform().mainBundle().name;
}

// Creates the record's folder when it is missing (a fresh account may have no
// preferences folder yet). Folders made below a home go to its user like the
// record itself.
void makeParentFolders(const std::string& file) {
  std::vector<std::string> missing;
  struct stat st {};
  for (std::string dir = kd::path::deletingLastComponent(file);
       !dir.empty() && dir != "/" && ::stat(dir.c_str(), &st) != 0;
       dir = kd::path::deletingLastComponent(dir))
    missing.push_back(dir);
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    if (::mkdir(it->c_str(), 0755) != 0 && errno != EEXIST) return;
    KdBugReporter::chownPlist(*it);
  }
}

void recordDate(const std::optional<std::string>& plistPath, const char* key) {
  auto path = recordPath(plistPath);
  if (!path) return;
  makeParentFolders(*path);
  kd::PlistDict record = kd::readPlistDictionaryOrEmpty(*path);
  record[key] = kd::PlistValue(std::chrono::system_clock::now());
  if (kd::writePlistDictionaryAtomically(record, *path)) KdBugReporter::chownPlist(*path);
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
  kd::Platform& platform = kd::platform();
  if (auto app = platform.bundledApplication(kBugReporterName))
    platform.openFileWithApplication(report, *app);
  else
    platform.openFileWithBundleIdentifier(report, kBugReporterBundleId);
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
    const std::string homes = kd::platform().homesFolderName();
    auto parts = kd::path::components(path);
    for (std::size_t i = 0; i < parts.size(); ++i) {
      if (parts[i] != homes) continue;
      // Only the first such component counts. A trailing "/" is no user name,
      // and a name that chown would take for an option is none either.
      if (i + 1 >= parts.size() || parts[i + 1] == "/") return;
      const std::string& user = parts[i + 1];
      if (user.front() == '-') return;
      KdTaskEx::runTask(chownTool(), {user, path}, kChownTimeout);
      return;
    }
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
