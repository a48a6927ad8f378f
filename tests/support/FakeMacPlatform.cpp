#include "support/FakeMacPlatform.h"

namespace kd::test {

FakeMacPlatform::FakeMacPlatform() : ForwardingPlatform(nativePlatform()) {}

std::vector<std::string> FakeMacPlatform::systemLogMessages() const {
  std::lock_guard l(mu_);
  return systemLog_;
}

std::uint32_t FakeMacPlatform::realUserId() {
  std::lock_guard l(mu_);
  return uid_;
}

std::optional<std::string> FakeMacPlatform::homeDirectory() {
  std::lock_guard l(mu_);
  return uid_ == 0 ? kRootHome : homesRoot_ + "/" + user_;
}

std::optional<std::string> FakeMacPlatform::homeDirectoryForUser(const std::string& user) {
  std::lock_guard l(mu_);
  if (user == "root") return kRootHome;
  if (user.empty()) return std::nullopt;
  return homesRoot_ + "/" + user;
}

std::optional<std::string> FakeMacPlatform::userName() {
  std::lock_guard l(mu_);
  return uid_ == 0 ? std::string("root") : user_;
}

std::optional<std::string> FakeMacPlatform::consoleUser() {
  std::lock_guard l(mu_);
  return console_;
}

std::vector<PrefixDrop> FakeMacPlatform::rootHomeAdjustments() {
  return {{"/var/root", 9}, {"/private/var/root", 16}};
}

std::vector<std::string> FakeMacPlatform::searchPathForDirectories(DirectoryKind kind,
                                                                   unsigned domainMask) {
  {
    std::lock_guard l(mu_);
    if (auto it = overrides_.find({static_cast<int>(kind), domainMask}); it != overrides_.end())
      return it->second;
  }
  // Preferences and Logs are Library's subfolders on macOS, whatever Library
  // gives (an override of Library included).
  if (kind == DirectoryKind::Preferences || kind == DirectoryKind::Logs) {
    std::vector<std::string> paths = searchPathForDirectories(DirectoryKind::Library, domainMask);
    for (auto& p : paths) p += kind == DirectoryKind::Preferences ? "/Preferences" : "/Logs";
    return paths;
  }
  std::string home = homeDirectory().value_or("");
  // The macOS answers, in the order macOS gives them (user, local, system).
  struct Row {
    const char* user;
    const char* local;
    const char* system;
  };
  Row row{};
  switch (kind) {
    case DirectoryKind::Application:
      row = {"/Applications", "/Applications", "/System/Applications"};
      break;
    case DirectoryKind::AdminApplication:
      row = {"/Applications/Utilities", "/Applications/Utilities",
             "/System/Applications/Utilities"};
      break;
    case DirectoryKind::Library:
      row = {"/Library", "/Library", "/System/Library"};
      break;
    case DirectoryKind::Documentation:
      row = {"/Library/Documentation", "/Library/Documentation", "/System/Library/Documentation"};
      break;
    case DirectoryKind::Document:
      row = {"/Documents", nullptr, nullptr};
      break;
    case DirectoryKind::Desktop:
      row = {"/Desktop", nullptr, nullptr};
      break;
    case DirectoryKind::Caches:
      row = {"/Library/Caches", "/Library/Caches", "/System/Library/Caches"};
      break;
    case DirectoryKind::ApplicationSupport:
      row = {"/Library/Application Support", "/Library/Application Support", nullptr};
      break;
    case DirectoryKind::Movies:
      row = {"/Movies", nullptr, nullptr};
      break;
    case DirectoryKind::Preferences:
    case DirectoryKind::Logs:
      break;  // composed above
  }
  std::vector<std::string> out;
  if ((domainMask & UserDomainMask) && row.user) out.push_back(home + row.user);
  if ((domainMask & LocalDomainMask) && row.local) out.push_back(row.local);
  if ((domainMask & SystemDomainMask) && row.system) out.push_back(row.system);
  return out;
}

std::optional<std::string> FakeMacPlatform::userCacheDirectory() {
  return std::string("/var/folders/zz/zyxvpxvq6csfxvn_n0000000000000/C/");
}

std::string FakeMacPlatform::temporaryDirectory() {
  return "/var/folders/zz/zyxvpxvq6csfxvn_n0000000000000/T/";
}

std::optional<std::string> FakeMacPlatform::currentDirectory() {
  {
    std::lock_guard l(mu_);
    if (cwd_) return *cwd_;
  }
  return target().currentDirectory();
}

void FakeMacPlatform::systemLog(std::string_view message) {
  std::lock_guard l(mu_);
  systemLog_.emplace_back(message);
}

}  // namespace kd::test
