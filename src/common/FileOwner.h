// The owner a file or folder is given when a root process writes it for a user.
#pragma once

#include "../KdExport.h"

#include <sys/types.h>

namespace kd {

// A user and group id pair (plain value).
struct KD_EXPORT FileOwner {
  uid_t uid = 0;
  gid_t gid = 0;
  bool operator==(const FileOwner&) const = default;
};

}  // namespace kd
