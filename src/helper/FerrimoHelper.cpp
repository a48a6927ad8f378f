#include "helper/FerrimoHelper.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "common/Path.h"
#include "common/PropertyList.h"
#include "common/SettingsFile.h"
#include "crash/KdBugReporter.h"
#include "helper/FerrimoVolumeChecker.h"
#include "log/KdLog.h"
#include "paths/KdCmdUtils.h"
#include "paths/KdLocalPaths.h"
#include "paths/UserFiles.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

constexpr const char* kAppName = "FerrimoHelper";
constexpr const char* kSettingsFile = "com.quillfen.Ferrimo.plist";
constexpr const char* kBundleIdentifier = "com.quillfen.Ferrimo";
// Mounts this soon after login are the disks that were already there.
constexpr double kLoginGraceSeconds = 60.0;
// A volume mounted longer ago than this is not a card that was just inserted.
constexpr double kFreshMountSeconds = 120.0;

std::optional<kd::DateSeconds> modificationDate(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

kd::PlistArray stringArray(const std::vector<std::string>& items) {
  kd::PlistArray out;
  for (const auto& s : items) out.emplace_back(s);
  return out;
}

bool listContains(const kd::PlistDict& settings, const char* key, const std::string& value) {
  auto it = settings.find(key);
  if (it == settings.end()) return false;
  const auto* list = it->second.get<kd::PlistArray>();
  if (!list) return false;
  return std::any_of(list->begin(), list->end(), [&](const kd::PlistValue& v) {
    const auto* s = v.get<std::string>();
    return s && *s == value;
  });
}

// Decides what to do for the newest volume and launches Ferrimo when it is a
// card to offload.
void examineNewestVolume(const kd::PlistDict& settings) {
  auto newest = FerrimoHelper::newestRemovableVolume();
  KdLog::appendLog("Most recent mount date: %@", kd::dateDescription(newest.date));
  if (!newest.path || newest.date - kd::nowSeconds() < -kFreshMountSeconds) return;
  const std::string& volume = *newest.path;

  KdLog::appendLog("Recent volume: %@", volume);
  KdLog::appendLog("Format: %i", FerrimoVolumeChecker::verifyVolumeType(volume));
  // The layout is read afresh for the decision: the card may still be settling.
  if (FerrimoVolumeChecker::verifyVolumeType(volume) == -1) return;

  if (listContains(settings, "ignoredVolumes", kd::path::lastComponent(volume))) {
    KdLog::appendLog("This drive has been ignored");
    return;
  }
  if (kd::platform().desktop().isApplicationRunning(kBundleIdentifier)) {
    KdLog::appendLog("Ferrimo is already running.");
    return;
  }
  auto appPath = KdCmdUtils::applicationPath();
  KdLog::appendLog("Current app path: %@", appPath);
  if (!appPath) {
    KdLog::appendLog("Unable to locate Ferrimo application");
    return;
  }
  KdTaskEx::runTaskAndReturn(kd::path::append(*appPath, "Contents/MacOS/Ferrimo"),
                             std::vector<std::string>{"-ferrimoVolume", volume});
}

}  // namespace

std::optional<std::string> FerrimoHelper::settingsPath() {
  return kd::path::append(KdLocalPaths::prefsDirectory(true), kSettingsFile);
}

FerrimoHelper::Newest FerrimoHelper::newestRemovableVolume() {
  Newest newest;
  for (const auto& volume : kd::platform().volumes().mountedRemovableMedia()) {
    auto date = modificationDate(volume);
    if (date && *date > newest.date) {
      newest.date = *date;
      newest.path = volume;
    }
  }
  return newest;
}

int FerrimoHelper::run(const std::vector<std::string>& arguments) {
  const auto settingsFile = settingsPath();
  // What a root run writes in the user's home is the user's; it reads no
  // links there.
  const auto owner = settingsFile ? kd::ownerForUserPath(*settingsFile) : std::nullopt;
  // The settings are looked at before the crash watcher writes to them, so
  // that a damaged file is kept aside and this run's log can say so.
  std::string settingsNote;
  if (settingsFile) settingsNote = kd::loadSettings(*settingsFile, !owner).message;
  KdBugReporter::startBugReporter(kAppName, settingsFile);
  KdLog::createNewLog(kAppName);
  if (!settingsNote.empty()) KdLog::appendLog("%@", settingsNote);

  kd::Settings loaded;
  if (settingsFile) loaded = kd::loadSettings(*settingsFile, !owner);
  if (!loaded.message.empty() && loaded.message != settingsNote)
    KdLog::appendLog("%@", loaded.message);
  kd::PlistDict& settings = loaded.dict;

  bool setup = std::find(arguments.begin(), arguments.end(), "-setup") != arguments.end();
  if (setup) {
    KdLog::appendLog("Setting up...");
    settings["lastStartup"] = kd::PlistValue(std::chrono::system_clock::now());
    settings["mountedDrives"] = stringArray(kd::platform().volumes().mountedRemovableMedia());
    std::string error = "no preferences folder";
    if (!settingsFile || !kd::saveSettings(loaded, *settingsFile, owner, &error))
      KdLog::appendLog("Unable to write settings: %@", error);
  } else {
    auto lastStartup = kd::plistDate(settings, "lastStartup");
    if (lastStartup && kd::toSeconds(*lastStartup) - kd::nowSeconds() > -kLoginGraceSeconds) {
      KdLog::appendLog("User recently logged in; ignoring mount notifications");
      KdLog::finishWriting();
      return 0;  // leaves the run record open, as a run that ends this early always has
    }
    // The system sends the mount notice before the volume has settled.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    examineNewestVolume(settings);
  }

  KdLog::finishWriting();
  KdBugReporter::stopBugReporter(settingsFile);
  return 0;
}
