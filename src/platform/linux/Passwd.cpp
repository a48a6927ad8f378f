#include "platform/linux/Passwd.h"

#include <pwd.h>
#include <unistd.h>

namespace kd {

namespace {
template <class Lookup>
std::optional<PasswdEntry> lookUp(Lookup lookup) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buf(size > 0 ? static_cast<std::size_t>(size) : 16384, '\0');
  struct passwd pw {};
  struct passwd* result = nullptr;
  if (lookup(&pw, buf.data(), buf.size(), &result) != 0 || !result) return std::nullopt;
  return PasswdEntry{pw.pw_name, pw.pw_dir, pw.pw_uid, pw.pw_gid};
}
}  // namespace

std::optional<PasswdEntry> passwdByUid(uid_t uid) {
  return lookUp([uid](passwd* pw, char* buf, std::size_t len, passwd** result) {
    return getpwuid_r(uid, pw, buf, len, result);
  });
}

std::optional<PasswdEntry> passwdByName(const std::string& name) {
  return lookUp([&name](passwd* pw, char* buf, std::size_t len, passwd** result) {
    return getpwnam_r(name.c_str(), pw, buf, len, result);
  });
}

}  // namespace kd
