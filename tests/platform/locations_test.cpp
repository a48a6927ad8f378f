// The Linux folder table under a temporary HOME, without and with XDG variables.
#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

using kd::DirectoryKind;
using Paths = std::vector<std::string>;
using Env = std::vector<std::optional<std::string>>;

namespace {

const char* const kVars[] = {"HOME",           "XDG_DATA_HOME",  "XDG_CONFIG_HOME",
                             "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DESKTOP_DIR",
                             "XDG_VIDEOS_DIR"};

// Gives kVars these values (none: unset) for a scope, then restores them.
struct ScopedEnv : kd::test::ScopedEnv {
  explicit ScopedEnv(const Env& values)
      : kd::test::ScopedEnv({std::begin(kVars), std::end(kVars)}, values) {}
};

Paths lookup(DirectoryKind kind, unsigned mask = kd::UserDomainMask | kd::LocalDomainMask) {
  return kd::nativePlatform().searchPathForDirectories(kind, mask);
}

}  // namespace

TEST(LinuxLocations, FoldersFollowHomeAndXdgVariables) {
  kd::test::TempDir dir;
  const std::string h = dir.mkdir("home");
  {
    // No XDG variables, but for a relative one, which is ignored.
    ScopedEnv env(
        {h, std::nullopt, std::nullopt, std::nullopt, "relative", std::nullopt, std::nullopt});
    const std::pair<DirectoryKind, Paths> rows[] = {
        // kind, user then local domain
        {DirectoryKind::Application, {h + "/.local/bin", "/usr/local/bin"}},
        {DirectoryKind::AdminApplication, {"/usr/local/sbin"}},
        {DirectoryKind::Library, {h + "/.local/share", "/usr/local/share"}},
        {DirectoryKind::Desktop, {h + "/Desktop"}},
        {DirectoryKind::Caches, {h + "/.cache", "/var/cache"}},
        {DirectoryKind::Movies, {h + "/Videos"}},
        {DirectoryKind::Preferences, {h + "/.config", "/etc/xdg"}},
        {DirectoryKind::Logs, {h + "/.local/state", "/var/log"}},
    };
    for (const auto& [kind, paths] : rows) EXPECT_EQ(lookup(kind), paths) << static_cast<int>(kind);
    EXPECT_EQ(lookup(DirectoryKind::Library, kd::UserDomainMask | kd::SystemDomainMask),
              (Paths{h + "/.local/share", "/usr/share"}));
  }
  dir.touch("conf/user-dirs.dirs",
            "# written by the desktop\n"
            "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
            "  XDG_DOCUMENTS_DIR=\"/srv/Dokumente \\\"A\\\"\"\n"
            "XDG_VIDEOS_DIR=unquoted-is-ignored\n");
  // The file's desktop wins over the variable.
  ScopedEnv env(
      {h, dir / "data", dir / "conf", dir / "cache", dir / "state", "/not/this", dir / "vids"});
  const std::pair<DirectoryKind, std::string> rows[] = {
      {DirectoryKind::ApplicationSupport, dir / "data"},
      {DirectoryKind::Preferences, dir / "conf"},
      {DirectoryKind::Caches, dir / "cache"},
      {DirectoryKind::Logs, dir / "state"},
      {DirectoryKind::Desktop, h + "/Schreibtisch"},
      {DirectoryKind::Document, "/srv/Dokumente \"A\""},
      {DirectoryKind::Movies, dir / "vids"},  // no usable entry in the file
  };
  for (const auto& [kind, user] : rows)
    EXPECT_EQ(lookup(kind, kd::UserDomainMask), Paths{user}) << static_cast<int>(kind);
  EXPECT_EQ(kd::nativePlatform().userCacheDirectory(), dir / "cache/");
}
