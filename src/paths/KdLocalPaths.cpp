#include "paths/KdLocalPaths.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "common/Path.h"

namespace {

kd::Platform& os() {
  return kd::platform();
}

unsigned domainOf(bool userDomain) {
  return userDomain ? kd::UserDomainMask : kd::LocalDomainMask;
}

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

bool KdLocalPaths::isRoot() {
  return os().realUserId() == 0;
}

KdLocalPaths::OptPath KdLocalPaths::pathForDirectory(kd::DirectoryKind kind, unsigned domain) {
  std::vector<std::string> found = os().searchPathForDirectories(kind, domain);
  if (found.empty()) return std::nullopt;
  std::string first = std::move(found.front());
  if (domain != kd::UserDomainMask || !isRoot()) return first;

  // A root process gets folders below root's home; move them to the console
  // user's home by cutting root's home off the front. The cut lengths are the
  // platform's own and are applied one after the other, as text.
  for (const kd::PrefixDrop& rule : os().rootHomeAdjustments()) {
    if (startsWith(first, rule.prefix)) first.erase(0, std::min(rule.drop, first.size()));
  }
  return kd::path::append(userDirectory(), first);
}

KdLocalPaths::OptPath KdLocalPaths::applicationDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Application, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::adminApplicationDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::AdminApplication, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::documentDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Document, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::libraryDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Library, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::prefsDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Preferences, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::cacheDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Caches, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::appSupportDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::ApplicationSupport, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::logDirectory(bool userDomain) {
  return pathForDirectory(kd::DirectoryKind::Logs, domainOf(userDomain));
}

KdLocalPaths::OptPath KdLocalPaths::movieDirectory() {
  return pathForDirectory(kd::DirectoryKind::Movies, kd::UserDomainMask);
}

KdLocalPaths::OptPath KdLocalPaths::desktopDirectory() {
  return pathForDirectory(kd::DirectoryKind::Desktop, kd::UserDomainMask);
}

KdLocalPaths::OptPath KdLocalPaths::systemLibraryDirectory() {
  return pathForDirectory(kd::DirectoryKind::Library, kd::SystemDomainMask);
}

KdLocalPaths::OptPath KdLocalPaths::localDocumentationDirectory() {
  return pathForDirectory(kd::DirectoryKind::Documentation, kd::LocalDomainMask);
}

KdLocalPaths::OptPath KdLocalPaths::darwinCacheDirectory() {
  return os().userCacheDirectory();
}

KdLocalPaths::OptPath KdLocalPaths::userDirectory() {
  if (!isRoot()) return os().homeDirectory();
  OptPath user = currentConsoleUser();
  if (!user) return std::nullopt;
  return os().homeDirectoryForUser(*user);
}

KdLocalPaths::OptPath KdLocalPaths::username() {
  if (!isRoot()) return os().userName();
  return currentConsoleUser();
}

KdLocalPaths::OptPath KdLocalPaths::trashDirectory() {
  return kd::path::append(userDirectory(), ".Trash");
}

std::string KdLocalPaths::tempDirectory() {
  return os().temporaryDirectory();
}

std::string KdLocalPaths::tempFile() {
  // A name only; whoever uses it creates the file.
  return kd::path::append(tempDirectory(), uuid() + randomString(8));
}

std::string KdLocalPaths::uuid() {
  return os().globallyUniqueString();
}

std::string KdLocalPaths::randomString(unsigned length) {
  static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  // Reseeded on every call from the product of processor clock and wall clock,
  // wrapped to 32 bits; good enough to keep temporary names apart, no secret.
  std::uint32_t seed =
      static_cast<std::uint32_t>(std::clock()) * static_cast<std::uint32_t>(std::time(nullptr));
  std::srand(seed);
  std::string out;
  out.reserve(length);
  for (unsigned i = 0; i < length; ++i) out.push_back(kAlphabet[std::rand() % 36]);
  return out;
}

KdLocalPaths::OptPath KdLocalPaths::ensureTrailingSlash(const OptPath& path) {
  if (!path || path->empty() || path->back() == '/') return path;
  return *path + "/";
}

KdLocalPaths::OptPath KdLocalPaths::stripTrailingSlash(const OptPath& path) {
  if (!path || path->size() < 2 || path->back() != '/') return path;
  return path->substr(0, path->size() - 1);
}

bool KdLocalPaths::isPathOnTimeMachineVolume(const std::string& path) {
  if (!startsWith(path, "/Volumes/")) return false;
  for (const std::string& component : kd::path::components(path))
    if (component == "Backups.backupdb") return true;
  return false;
}

KdLocalPaths::OptPath KdLocalPaths::currentConsoleUser() {
  // The login window "user" owns the console while nobody is logged in.
  OptPath user = os().consoleUser();
  if (!user || user->empty() || *user == "loginwindow") return std::nullopt;
  return user;
}

bool KdLocalPaths::isPathSystemDirectory(const std::string& path, bool exactMatch) {
  if (path == "/") return true;
  if (path.size() < 3) return false;
  // A trailing slash costs the character before it too ("/usr/" -> "/us");
  // callers rely on exactly this shortening.
  std::string p = path;
  if (p.back() == '/') p.resize(p.size() - 2);

  // The standard folders, each asked afresh so that a root process follows the
  // console user; user domain before local, in this order.
  using DomainOp = OptPath (*)(bool);
  static constexpr DomainOp kDomainOps[] = {
      &applicationDirectory, &adminApplicationDirectory,
      &documentDirectory,    &libraryDirectory,
      &prefsDirectory,       &cacheDirectory,
      &appSupportDirectory,
  };
  for (DomainOp op : kDomainOps) {
    if (op(true) == p || op(false) == p) return true;
  }
  using PlainOp = OptPath (*)();
  static constexpr PlainOp kPlainOps[] = {&desktopDirectory, &userDirectory,
                                          &systemLibraryDirectory, &localDocumentationDirectory};
  for (PlainOp op : kPlainOps) {
    if (op() == p) return true;
  }
  for (const char* literal : {"/Users/Shared", "/usr", "/var", "/bin", "/sbin", "/System"}) {
    if (p == literal) return true;
  }
  if (exactMatch) return false;

  if (startsWith(p, "/usr/") && !startsWith(p, "/usr/local/")) return true;
  for (const char* prefix : {"/var/", "/bin/", "/sbin/", "/private/var/", "/System/"}) {
    if (startsWith(p, prefix)) return true;
  }
  return false;
}
