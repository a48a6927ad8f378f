#include "common/SettingsFile.h"

#include <fcntl.h>

#include <cerrno>
#include <ctime>

#include "common/PlistCodec.h"
#include "platform/FileIO.h"

namespace kd {

namespace {

std::string utcStamp() {
  std::time_t now = std::time(nullptr);
  struct tm utc {};
  char text[32] = "unknown";
  if (::gmtime_r(&now, &utc)) std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

// Moves a damaged file aside without ever replacing another file; the name it
// took.
Result<std::string> keepAside(const std::string& path) {
  const std::string base = path + ".damaged-" + utcStamp();
  for (int n = 1; n < 100; ++n) {
    std::string aside = n == 1 ? base : base + "-" + std::to_string(n);
    const int e = fileio::renameNoReplace(AT_FDCWD, path, AT_FDCWD, aside);
    if (e == 0) return aside;
    // The system's own error (EINVAL where the file system lacks the flag,
    // which `e` reports as ENOTSUP), as the message has always named it.
    if (e != EEXIST) return Error::fromErrno();
  }
  return Error{EEXIST};
}

// The settings written back in their form, or in the binary form when the XML
// form cannot carry them.
Result<void> writeSettings(const Settings& settings, const std::string& path,
                           const std::optional<FileOwner>& owner) {
  if (!settings.writable)
    return Error::described("the settings file could not be read, so it is left as it is");
  PlistFormat format = settings.format;
  if (format == PlistFormat::Xml && !plist::writeXml(settings.dict)) format = PlistFormat::Binary;
  return plist::writeFile(settings.dict, path, format, owner);
}

}  // namespace

Settings loadSettings(const std::string& path, bool followLinks) {
  Settings settings;
  PlistFile file = readPlistFile(path, followLinks);
  switch (file.status) {
    case PlistReadStatus::Ok:
      settings.dict = std::move(file.dict);
      settings.format = file.format;
      break;
    case PlistReadStatus::Missing:
      break;
    case PlistReadStatus::Unreadable:
      settings.writable = false;
      settings.message = "Unable to read settings file " + path + " (" + file.reason +
                         "); it is left as it is and no settings are written";
      break;
    case PlistReadStatus::Damaged:
      if (Result<std::string> aside = keepAside(path)) {
        settings.message = "Settings file " + path + " is damaged (" + file.reason + "); kept as " +
                           *aside + " and started afresh";
      } else {
        settings.writable = false;
        settings.message = "Settings file " + path + " is damaged (" + file.reason +
                           ") and cannot be kept aside (" + aside.error().message() +
                           "); it is left as it is and no settings are written";
      }
      break;
  }
  return settings;
}

bool saveSettings(const Settings& settings, const std::string& path,
                  const std::optional<FileOwner>& owner, std::string* error) {
  Result<void> written = writeSettings(settings, path, owner);
  if (!written && error) *error = written.error().message();
  return written.ok();
}

}  // namespace kd
