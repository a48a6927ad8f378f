// One run of FerrimoHelper: started on every volume mount (and with "-setup"
// at login), it decides whether the newest removable volume is a fresh camera
// card and, if so, starts Ferrimo with "-ferrimoVolume" and the volume's path.
//
// Runs on the calling (main) thread from start to end; not reentrant.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/DateText.h"

class FerrimoHelper {
 public:
  FerrimoHelper() = delete;

  // The whole run; `arguments` are the command-line arguments after the
  // program name. Returns the exit status, which is always 0.
  static int run(const std::vector<std::string>& arguments);

  // The settings file shared with Ferrimo, in the user's preferences folder.
  static std::optional<std::string> settingsPath();

  // Of the mounted removable volumes, the one whose mount point was modified
  // last (ties keep the earlier; unreadable dates never win), with that date;
  // the distant past and no path when there is none.
  struct Newest {
    std::optional<std::string> path;
    kd::DateSeconds date = kd::kDistantPast;
  };
  static Newest newestRemovableVolume();
};
