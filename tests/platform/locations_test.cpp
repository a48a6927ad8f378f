#include <gtest/gtest.h>
#include <stdlib.h>

#include "platform/Platform.h"
#include "support/TempDir.h"

using kd::DirectoryKind;
using Paths = std::vector<std::string>;

namespace {

// Sets (nullptr: unsets) environment variables for a scope, then restores them.
class ScopedEnv {
 public:
  ScopedEnv(std::initializer_list<std::pair<const char*, std::optional<std::string>>> vars) {
    for (const auto& [name, value] : vars) {
      const char* old = getenv(name);
      saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
      value ? setenv(name, value->c_str(), 1) : unsetenv(name);
    }
  }
  ~ScopedEnv() {
    for (const auto& [name, old] : saved_) old ? setenv(name, old->c_str(), 1) : unsetenv(name);
  }

 private:
  std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};

Paths lookup(DirectoryKind kind, unsigned mask) {
  return kd::nativePlatform().searchPathForDirectories(kind, mask);
}

}  // namespace

TEST(LinuxLocations, DefaultFoldersBelowHome) {
  kd::test::TempDir dir;
  const std::string h = dir.path();
  ScopedEnv env{{"HOME", h},
                {"XDG_DATA_HOME", std::nullopt},
                {"XDG_CONFIG_HOME", std::nullopt},
                {"XDG_CACHE_HOME", std::nullopt},
                {"XDG_STATE_HOME", "relative"},  // not absolute: ignored
                {"XDG_DESKTOP_DIR", std::nullopt},
                {"XDG_VIDEOS_DIR", std::nullopt}};
  const std::tuple<DirectoryKind, Paths, Paths> rows[] = {
      // kind, user domain, local domain
      {DirectoryKind::Application, {h + "/.local/bin"}, {"/usr/local/bin"}},
      {DirectoryKind::AdminApplication, {}, {"/usr/local/sbin"}},
      {DirectoryKind::Library, {h + "/.local/share"}, {"/usr/local/share"}},
      {DirectoryKind::Desktop, {h + "/Desktop"}, {}},
      {DirectoryKind::Caches, {h + "/.cache"}, {"/var/cache"}},
      {DirectoryKind::Movies, {h + "/Videos"}, {}},
      {DirectoryKind::Preferences, {h + "/.config"}, {"/etc/xdg"}},
      {DirectoryKind::Logs, {h + "/.local/state"}, {"/var/log"}},
  };
  for (const auto& [kind, user, local] : rows) {
    EXPECT_EQ(lookup(kind, kd::UserDomainMask), user) << static_cast<int>(kind);
    EXPECT_EQ(lookup(kind, kd::LocalDomainMask), local) << static_cast<int>(kind);
  }
  EXPECT_EQ(lookup(DirectoryKind::Library,
                   kd::UserDomainMask | kd::LocalDomainMask | kd::SystemDomainMask),
            (Paths{h + "/.local/share", "/usr/local/share", "/usr/share"}));
}

TEST(LinuxLocations, XdgVariablesAndUserDirsFile) {
  kd::test::TempDir dir;
  const std::string home = dir.mkdir("home");
  dir.touch("conf/user-dirs.dirs",
            "# written by the desktop\n"
            "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
            "  XDG_DOCUMENTS_DIR=\"/srv/Dokumente \\\"A\\\"\"\n"
            "XDG_VIDEOS_DIR=unquoted-is-ignored\n");
  ScopedEnv env{{"HOME", home},
                {"XDG_DATA_HOME", dir / "data"},
                {"XDG_CONFIG_HOME", dir / "conf"},
                {"XDG_CACHE_HOME", dir / "cache"},
                {"XDG_STATE_HOME", dir / "state"},
                {"XDG_DESKTOP_DIR", "/the/file/wins"},
                {"XDG_VIDEOS_DIR", dir / "vids"}};
  const std::pair<DirectoryKind, std::string> rows[] = {
      {DirectoryKind::ApplicationSupport, dir / "data"},
      {DirectoryKind::Preferences, dir / "conf"},
      {DirectoryKind::Caches, dir / "cache"},
      {DirectoryKind::Logs, dir / "state"},
      {DirectoryKind::Desktop, home + "/Schreibtisch"},
      {DirectoryKind::Document, "/srv/Dokumente \"A\""},
      {DirectoryKind::Movies, dir / "vids"},  // no usable entry in the file
  };
  for (const auto& [kind, user] : rows)
    EXPECT_EQ(lookup(kind, kd::UserDomainMask), Paths{user}) << static_cast<int>(kind);
  EXPECT_EQ(kd::nativePlatform().userCacheDirectory(), dir / "cache/");
}
