#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>

#include "platform/Platform.h"
#include "support/TempDir.h"

using kd::DirectoryKind;
using kd::test::TempDir;
using Paths = std::vector<std::string>;

namespace {

// Sets (or, with nullptr, unsets) environment variables for a scope and puts
// the old values back afterwards.
class ScopedEnv {
 public:
  ScopedEnv(std::initializer_list<std::pair<const char*, const char*>> vars) {
    for (const auto& [name, value] : vars) {
      const char* old = getenv(name);
      saved_.emplace(name, old ? std::optional<std::string>(old) : std::nullopt);
      if (value)
        setenv(name, value, 1);
      else
        unsetenv(name);
    }
  }
  ~ScopedEnv() {
    for (const auto& [name, old] : saved_) {
      if (old)
        setenv(name.c_str(), old->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

Paths lookup(DirectoryKind kind, unsigned mask) {
  return kd::nativePlatform().searchPathForDirectories(kind, mask);
}

}  // namespace

TEST(LinuxLocations, DefaultFoldersBelowHome) {
  TempDir dir;
  const std::string home = dir.path();
  ScopedEnv env{
      {"HOME", home.c_str()},       {"XDG_DATA_HOME", nullptr},     {"XDG_CONFIG_HOME", nullptr},
      {"XDG_CACHE_HOME", nullptr},  {"XDG_STATE_HOME", "relative"},  // not absolute: ignored
      {"XDG_DESKTOP_DIR", nullptr}, {"XDG_DOCUMENTS_DIR", nullptr}, {"XDG_VIDEOS_DIR", nullptr}};
  struct Row {
    DirectoryKind kind;
    Paths user;
    Paths local;
  };
  const Row rows[] = {
      {DirectoryKind::Application, {home + "/.local/bin"}, {"/usr/local/bin"}},
      {DirectoryKind::AdminApplication, {}, {"/usr/local/sbin"}},
      {DirectoryKind::Library, {home + "/.local/share"}, {"/usr/local/share"}},
      {DirectoryKind::Documentation, {home + "/.local/share/doc"}, {"/usr/local/share/doc"}},
      {DirectoryKind::Document, {home + "/Documents"}, {}},
      {DirectoryKind::Desktop, {home + "/Desktop"}, {}},
      {DirectoryKind::Caches, {home + "/.cache"}, {"/var/cache"}},
      {DirectoryKind::ApplicationSupport, {home + "/.local/share"}, {"/usr/local/share"}},
      {DirectoryKind::Movies, {home + "/Videos"}, {}},
      {DirectoryKind::Preferences, {home + "/.config"}, {"/etc/xdg"}},
      {DirectoryKind::Logs, {home + "/.local/state"}, {"/var/log"}},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(lookup(r.kind, kd::UserDomainMask), r.user) << static_cast<int>(r.kind);
    EXPECT_EQ(lookup(r.kind, kd::LocalDomainMask), r.local) << static_cast<int>(r.kind);
  }
  // Several domains come user first, then local, then system.
  EXPECT_EQ(lookup(DirectoryKind::Library,
                   kd::UserDomainMask | kd::LocalDomainMask | kd::SystemDomainMask),
            (Paths{home + "/.local/share", "/usr/local/share", "/usr/share"}));
  EXPECT_EQ(kd::nativePlatform().userCacheDirectory(), home + "/.cache/");
}

TEST(LinuxLocations, XdgVariablesAndUserDirsFile) {
  TempDir dir;
  const std::string home = dir.mkdir("home");
  const std::string config = dir.mkdir("conf");
  dir.touch("conf/user-dirs.dirs",
            "# written by the desktop\n"
            "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
            "  XDG_DOCUMENTS_DIR=\"/srv/Dokumente \\\"A\\\"\"\n"
            "XDG_VIDEOS_DIR=relative-is-ignored\n"
            "XDG_DESKTOP_DIR_EXTRA=\"/not/this\"\n");
  const std::string videos = dir / "vids";
  ScopedEnv env{{"HOME", home.c_str()},
                {"XDG_DATA_HOME", (dir / "data").c_str()},
                {"XDG_CONFIG_HOME", config.c_str()},
                {"XDG_CACHE_HOME", (dir / "cache").c_str()},
                {"XDG_STATE_HOME", (dir / "state").c_str()},
                {"XDG_DESKTOP_DIR", "/env/loses/to/the/file"},
                {"XDG_DOCUMENTS_DIR", nullptr},
                {"XDG_VIDEOS_DIR", videos.c_str()}};
  struct Row {
    DirectoryKind kind;
    std::string user;
  };
  const Row rows[] = {
      {DirectoryKind::Library, dir / "data"},
      {DirectoryKind::ApplicationSupport, dir / "data"},
      {DirectoryKind::Preferences, config},
      {DirectoryKind::Caches, dir / "cache"},
      {DirectoryKind::Logs, dir / "state"},
      {DirectoryKind::Desktop, home + "/Schreibtisch"},
      {DirectoryKind::Document, "/srv/Dokumente \"A\""},
      {DirectoryKind::Movies, videos},  // no usable entry in the file
      {DirectoryKind::Application, home + "/.local/bin"},
  };
  for (const Row& r : rows)
    EXPECT_EQ(lookup(r.kind, kd::UserDomainMask), Paths{r.user}) << static_cast<int>(r.kind);
  EXPECT_EQ(kd::nativePlatform().userCacheDirectory(), dir / "cache/");
}
