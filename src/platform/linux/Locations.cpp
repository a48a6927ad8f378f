// Standard folders on Linux, following the XDG base-directory and user-dirs
// conventions. docs/platform.md holds the whole table next to the macOS one.
#include <cstdlib>
#include <fstream>

#include "common/Path.h"
#include "platform/linux/LinuxPlatform.h"

namespace kd {

namespace {

using OptString = std::optional<std::string>;

// An XDG variable counts only when it holds an absolute path; relative values
// are invalid and ignored, as the base-directory rules require.
OptString absoluteEnv(const char* name) {
  const char* value = std::getenv(name);
  if (!value || value[0] != '/') return std::nullopt;
  return std::string(value);
}

// $name, or `home`/`fallback` when it is unset or invalid.
OptString xdgHome(const char* name, const OptString& home, const char* fallback) {
  if (OptString v = absoluteEnv(name)) return v;
  return path::append(home, fallback);
}

// Unquotes a value of user-dirs.dirs: "$HOME/yyy" or "/yyy", shell-quoted.
OptString userDirsValue(std::string_view raw, const std::string& home) {
  if (raw.size() < 2 || raw.front() != '"' || raw.back() != '"') return std::nullopt;
  raw = raw.substr(1, raw.size() - 2);
  std::string value;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\\' && i + 1 < raw.size()) ++i;
    value.push_back(raw[i]);
  }
  if (value.rfind("$HOME", 0) == 0 && (value.size() == 5 || value[5] == '/'))
    return path::append(home, std::string_view(value).substr(5));
  if (!value.empty() && value.front() == '/') return value;
  return std::nullopt;
}

// A user folder of user-dirs.dirs (key e.g. "XDG_DESKTOP_DIR"); then the
// variable of the same name; then `home`/`fallback`.
OptString userDir(const char* key, const OptString& home, const OptString& configHome,
                  const char* fallback) {
  if (!home) return std::nullopt;
  if (configHome) {
    std::ifstream in(path::append(*configHome, "user-dirs.dirs"));
    std::string prefix = std::string(key) + "=";
    OptString found;
    for (std::string line; std::getline(in, line);) {
      std::size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line.compare(start, prefix.size(), prefix) != 0) continue;
      std::string value = line.substr(start + prefix.size());
      while (!value.empty() &&
             (value.back() == ' ' || value.back() == '\t' || value.back() == '\r'))
        value.pop_back();
      if (OptString v = userDirsValue(value, *home)) found = v;  // the last one wins, as in a shell
    }
    if (found) return found;
  }
  if (OptString v = absoluteEnv(key)) return v;
  return path::append(*home, fallback);
}

}  // namespace

std::vector<std::string> LinuxPlatform::searchPathForDirectories(DirectoryKind kind,
                                                                 unsigned domainMask) {
  OptString user, local, system;
  if (domainMask & UserDomainMask) {
    OptString home = homeDirectory();
    if (home) {
      OptString data = xdgHome("XDG_DATA_HOME", home, ".local/share");
      OptString config = xdgHome("XDG_CONFIG_HOME", home, ".config");
      switch (kind) {
        case DirectoryKind::Application:
          user = path::append(home, ".local/bin");
          break;
        case DirectoryKind::AdminApplication:
          break;
        case DirectoryKind::Library:
        case DirectoryKind::ApplicationSupport:
          user = data;
          break;
        case DirectoryKind::Documentation:
          user = path::append(data, "doc");
          break;
        case DirectoryKind::Document:
          user = userDir("XDG_DOCUMENTS_DIR", home, config, "Documents");
          break;
        case DirectoryKind::Desktop:
          user = userDir("XDG_DESKTOP_DIR", home, config, "Desktop");
          break;
        case DirectoryKind::Movies:
          user = userDir("XDG_VIDEOS_DIR", home, config, "Videos");
          break;
        case DirectoryKind::Caches:
          user = xdgHome("XDG_CACHE_HOME", home, ".cache");
          break;
        case DirectoryKind::Preferences:
          user = config;
          break;
        case DirectoryKind::Logs:
          user = xdgHome("XDG_STATE_HOME", home, ".local/state");
          break;
      }
    }
  }
  switch (kind) {
    case DirectoryKind::Application:
      local = "/usr/local/bin";
      system = "/usr/bin";
      break;
    case DirectoryKind::AdminApplication:
      local = "/usr/local/sbin";
      system = "/usr/sbin";
      break;
    case DirectoryKind::Library:
      local = "/usr/local/share";
      system = "/usr/share";
      break;
    case DirectoryKind::ApplicationSupport:
      local = "/usr/local/share";
      break;
    case DirectoryKind::Documentation:
      local = "/usr/local/share/doc";
      system = "/usr/share/doc";
      break;
    case DirectoryKind::Caches:
      local = "/var/cache";
      break;
    case DirectoryKind::Preferences:
      local = "/etc/xdg";
      break;
    case DirectoryKind::Logs:
      local = "/var/log";
      break;
    case DirectoryKind::Document:
    case DirectoryKind::Desktop:
    case DirectoryKind::Movies:
      break;
  }
  // User, local, system: the order macOS gives them in.
  std::vector<std::string> out;
  if (user) out.push_back(*user);
  if ((domainMask & LocalDomainMask) && local) out.push_back(*local);
  if ((domainMask & SystemDomainMask) && system) out.push_back(*system);
  return out;
}

std::optional<std::string> LinuxPlatform::userCacheDirectory() {
  // The per-user cache folder, with the trailing slash macOS's answer has.
  OptString cache = xdgHome("XDG_CACHE_HOME", homeDirectory(), ".cache");
  if (!cache) return std::nullopt;
  return *cache + "/";
}

}  // namespace kd
