#include "helper/FerrimoVolumeChecker.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "common/Path.h"
#include "files/KdFileManager.h"

namespace {

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// Calls `visit(name)` for each entry of `folder` (hidden ones included, "."
// and ".." left out) until it returns true. A folder that cannot be read has
// no entries. Returns whether some visit returned true.
template <class Visit>
bool anyEntry(const std::string& folder, Visit&& visit) {
  DirHandle dir(::opendir(folder.c_str()));
  if (!dir) return false;
  while (const dirent* entry = ::readdir(dir.get())) {
    const std::string_view name(entry->d_name);
    if (name == "." || name == "..") continue;
    if (visit(name)) return true;
  }
  return false;
}

std::vector<std::string> listFolder(const std::string& folder) {
  std::vector<std::string> names;
  anyEntry(folder, [&](std::string_view name) {
    names.emplace_back(name);
    return false;
  });
  return names;
}

// Follows symbolic links, as the volume's own lookups would.
bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool contains(const std::vector<std::string>& names, std::string_view wanted) {
  return std::find(names.begin(), names.end(), wanted) != names.end();
}

bool hasMatch(const std::string& pattern) {
  return !KdFileManager::filesMatchingWildcardPath(pattern).empty();
}

// The first `count` characters (UTF-8 sequences) of `s`; absent when `s` is
// shorter.
std::optional<std::string_view> leadingChars(std::string_view s, int count) {
  std::size_t i = 0;
  for (int c = 0; c < count; ++c) {
    if (i >= s.size()) return std::nullopt;
    ++i;
    while (i < s.size() && (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80) ++i;
  }
  return s.substr(0, i);
}

// The folder named like the volume, holding the project files and a clip
// whose name starts like the volume's.
bool hasNamedProjectFolder(const std::string& volumePath, const std::string& volumeName,
                           const std::vector<std::string>& rootListing) {
  if (!contains(rootListing, volumeName)) return false;
  const std::string folder = volumePath + "/" + volumeName;
  const std::string stem = folder + "/" + volumeName;
  const bool hasProject = exists(stem + "_FCP.xml") || exists(stem + "_AVID.ale");
  if (!hasProject || !exists(stem + "_BIN.bin")) return false;
  // A name of fewer than four characters has no four-character prefix: no match.
  const std::optional<std::string_view> prefix = leadingChars(volumeName, 4);
  if (!prefix) return false;
  return anyEntry(folder, [&](std::string_view name) {
    return name.starts_with(*prefix) && name.ends_with(".mov");
  });
}

std::int64_t detect(const std::string& volumePath) {
  const std::string volumeName = kd::path::lastComponent(volumePath);
  const std::vector<std::string> rootListing = listFolder(volumePath);

  if (exists(volumePath + "/CONTENTS/LASTCLIP.TXT")) return 0;
  if (std::any_of(rootListing.begin(), rootListing.end(),
                  [](const std::string& name) { return kd::path::extension(name) == "RDM"; }))
    return 1;
  if (exists(volumePath + "/MEDIAPRO.XML")) return 2;
  if (contains(rootListing, "BPAV")) return 3;
  if (exists(volumePath + "/PRIVATE/AVCHD") || exists(volumePath + "/AVCHD")) return 4;
  if (anyEntry(volumePath + "/DCIM",
               [](std::string_view name) { return name.starts_with("100EOS"); }))
    return 5;
  if (hasNamedProjectFolder(volumePath, volumeName, rootListing)) return 6;
  if (exists(volumePath + "/CONTENTS") && hasMatch(volumePath + "/CONTENTS/CLIPS*/*/*.MXF"))
    return 7;
  if (exists(volumePath + "/hs_param.bin") || hasMatch(volumePath + "/*/hs_param.bin")) return 8;
  // The name test comes first so that other volumes cost no extra listing.
  if (volumeName.starts_with("DJI_") && hasMatch(volumePath + "/????_????_????????_*/*.mov"))
    return 9;
  return FerrimoVolumeChecker::kUnknownLayout;
}

}  // namespace

std::int64_t FerrimoVolumeChecker::verifyVolumeType(const std::string& volumePath) {
  try {
    return detect(volumePath);
  } catch (...) {
    // Only allocation can fail; an unrecognised volume is the safe answer.
    return kUnknownLayout;
  }
}
