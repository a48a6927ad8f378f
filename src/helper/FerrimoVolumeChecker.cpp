#include "helper/FerrimoVolumeChecker.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "common/Path.h"
#include "files/WildcardSearch.h"

namespace {

// Follows symbolic links, as the volume's own lookups would.
bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

using Listing = std::vector<kd::WildcardSearch::Entry>;

bool contains(const Listing& entries, std::string_view wanted) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const auto& entry) { return entry.name == wanted; });
}

template <class Test>
bool anyName(const Listing& entries, Test&& test) {
  return std::any_of(entries.begin(), entries.end(),
                     [&](const auto& entry) { return test(std::string_view(entry.name)); });
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
bool hasNamedProjectFolder(kd::WildcardSearch& card, const std::string& volumePath,
                           const std::string& volumeName) {
  if (!contains(card.list(volumePath), volumeName)) return false;
  const std::string folder = volumePath + "/" + volumeName;
  const std::string stem = folder + "/" + volumeName;
  const bool hasProject = exists(stem + "_FCP.xml") || exists(stem + "_AVID.ale");
  if (!hasProject || !exists(stem + "_BIN.bin")) return false;
  // A name of fewer than four characters has no four-character prefix: no match.
  const std::optional<std::string_view> prefix = leadingChars(volumeName, 4);
  if (!prefix) return false;
  return anyName(card.list(folder), [&](std::string_view name) {
    return name.starts_with(*prefix) && name.ends_with(".mov");
  });
}

std::int64_t detect(const std::string& volumePath) {
  const std::string volumeName = kd::path::lastComponent(volumePath);
  // One search for the whole detection: each folder is listed once, whichever
  // tests look at it, and links back into the card cost nothing twice.
  kd::WildcardSearch card;
  const Listing& root = card.list(volumePath);

  if (exists(volumePath + "/CONTENTS/LASTCLIP.TXT")) return 0;
  if (anyName(root, [](std::string_view name) { return kd::path::extension(name) == "RDM"; }))
    return 1;
  if (exists(volumePath + "/MEDIAPRO.XML")) return 2;
  if (contains(root, "BPAV")) return 3;
  if (exists(volumePath + "/PRIVATE/AVCHD") || exists(volumePath + "/AVCHD")) return 4;
  if (anyName(card.list(volumePath + "/DCIM"),
              [](std::string_view name) { return name.starts_with("100EOS"); }))
    return 5;
  if (hasNamedProjectFolder(card, volumePath, volumeName)) return 6;
  if (exists(volumePath + "/CONTENTS") && card.anyMatch(volumePath + "/CONTENTS/CLIPS*/*/*.MXF"))
    return 7;
  if (exists(volumePath + "/hs_param.bin") || card.anyMatch(volumePath + "/*/hs_param.bin"))
    return 8;
  // The name test comes first so that other volumes cost no extra listing.
  if (volumeName.starts_with("DJI_") && card.anyMatch(volumePath + "/????_????_????????_*/*.mov"))
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

std::string FerrimoVolumeChecker::layoutDescription(std::int64_t code) {
  static const char* const kLayouts[] = {"CONTENTS/LASTCLIP.TXT",
                                         "an .RDM folder at the top",
                                         "MEDIAPRO.XML at the top",
                                         "BPAV at the top",
                                         "AVCHD",
                                         "DCIM with a 100EOS folder",
                                         "a folder named like the card with its _BIN.bin",
                                         "CONTENTS/CLIPS*/*/*.MXF",
                                         "hs_param.bin",
                                         "a DJI_ card with ????_????_????????_* folders"};
  if (code < 0 || code > 9) return "no known camera layout (code -1)";
  return std::string(kLayouts[code]) + " (code " + std::to_string(code) + ")";
}
