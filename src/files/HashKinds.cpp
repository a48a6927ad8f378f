#include "files/HashKinds.h"

#include <algorithm>

#include "files/KdFileManager.h"

namespace kd {

HashKinds::HashKinds(std::string_view list) {
  if (list.find_first_not_of(" \t") == std::string_view::npos) return;
  for (std::size_t start = 0;;) {
    const std::size_t comma = list.find(',', start);
    std::string_view name = list.substr(start, comma - start);
    while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.remove_prefix(1);
    while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
    kinds_.emplace_back(name);
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
}

const std::string& HashKinds::verifying() const {
  static const std::string none;
  return kinds_.empty() ? none : kinds_.front();
}

std::vector<std::string> HashKinds::others() const {
  return kinds_.empty() ? std::vector<std::string>()
                        : std::vector<std::string>(kinds_.begin() + 1, kinds_.end());
}

std::string HashKinds::text(std::string_view separator) const {
  std::string out;
  for (std::size_t i = 0; i < kinds_.size(); ++i) {
    if (i > 0) out += separator;
    out += kinds_[i];
  }
  return out;
}

std::optional<std::string> HashKinds::problem() const {
  if (kinds_.empty()) return "No hash kind was given";
  for (std::size_t i = 0; i < kinds_.size(); ++i) {
    const std::string& kind = kinds_[i];
    if (kind.empty()) return "An empty hash kind in \"" + text() + "\"";
    if (kind == "none" || !KdFileManager::copyDigestNamed(kind))
      return "Unknown hash \"" + kind +
             "\": choose xxh64, xxh3, xxh128, md5, sha1, sha256 or "
             "sha512";
    if (std::find(kinds_.begin(), kinds_.begin() + static_cast<std::ptrdiff_t>(i), kind) !=
        kinds_.begin() + static_cast<std::ptrdiff_t>(i))
      return "The hash " + kind + " is listed twice";
  }
  return std::nullopt;
}

}  // namespace kd
