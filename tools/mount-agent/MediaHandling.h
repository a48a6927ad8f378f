// The desktop's "never start programs on media insertion" setting (GNOME's
// org.gnome.desktop.media-handling autorun-never), read with the desktop's own
// gsettings tool through the library's process runner, so that the agent
// links no GLib.
//
// Stateless; any thread. Each call starts gsettings once and waits for it at
// most kSettingTimeout seconds (a stuck tool is ended then).
#pragma once

#include <string>

namespace kd::agent {

inline constexpr double kSettingTimeout = 2.0;

// The gsettings program on $PATH; "" when there is none.
std::string findGsettings();

// Whether the setting is on. No gsettings, no such schema or key, a tool that
// fails, answers anything but "true" or does not answer in time: not set.
bool autorunNever();

}  // namespace kd::agent
