// Recognises a camera card by the folder layout at the top of a mounted volume.
//
// Stateless class operation; reads the file system and changes nothing, so it
// may be called from any thread.
#pragma once

#include "../KdExport.h"

#include <cstdint>
#include <string>

class KD_EXPORT FerrimoVolumeChecker {
 public:
  FerrimoVolumeChecker() = delete;

  // The card layout codes shared with the main application. Their numbers are
  // a fixed vocabulary and must never change.
  static constexpr std::int64_t kUnknownLayout = -1;

  // The layout code of the volume mounted at `volumePath`, an absolute path
  // such as "/Volumes/CARD" (the deeper patterns are searched from "/"): 0 to
  // 9 for a known layout, -1 for none. The first test that holds decides, in
  // code order. Folders that cannot be read count as empty; never fails
  // otherwise.
  static std::int64_t verifyVolumeType(const std::string& volumePath);

  // How a layout code is recognised, in words for a transfer report or a
  // window ("DCIM with a 100EOS folder (code 5)"); -1 and codes outside the
  // vocabulary give "no known camera layout (code -1)".
  static std::string layoutDescription(std::int64_t code);
};
