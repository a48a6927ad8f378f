// Look-ups in the password database. Stateless; callable from any thread.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kd {

struct PasswdEntry {
  std::string name;
  std::string home;
  uid_t uid = 0;
  gid_t gid = 0;
};

std::optional<PasswdEntry> passwdByUid(uid_t uid);
std::optional<PasswdEntry> passwdByName(const std::string& name);

}  // namespace kd
