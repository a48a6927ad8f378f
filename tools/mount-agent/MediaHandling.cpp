#include "MediaHandling.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "common/Path.h"
#include "tasks/KdTaskEx.h"

namespace kd::agent {

std::string findGsettings() {
  const char* path = std::getenv("PATH");
  std::string_view folders = path && *path ? path : "/usr/local/bin:/usr/bin:/bin";
  while (!folders.empty()) {
    const std::size_t colon = folders.find(':');
    const std::string_view folder = folders.substr(0, colon);
    folders = colon == std::string_view::npos ? std::string_view() : folders.substr(colon + 1);
    // A relative entry would depend on the agent's working folder.
    if (folder.empty() || folder.front() != '/') continue;
    std::string candidate = kd::path::append(std::string(folder), "gsettings");
    if (KdTaskEx::isExecutableTool(candidate)) return candidate;
  }
  return "";
}

bool autorunNever() {
  const std::string gsettings = findGsettings();
  if (gsettings.empty()) return false;
  KdTaskEx::RunReport report;
  const auto answer = KdTaskEx::dataFromTaskWithReport(
      gsettings, {"get", "org.gnome.desktop.media-handling", "autorun-never"}, kSettingTimeout,
      report);
  if (!answer || report.timedOut || report.outcome.kind != KdTask::Outcome::Kind::Exited ||
      report.outcome.value != 0)
    return false;
  return *answer == "true\n" || *answer == "true";
}

}  // namespace kd::agent
