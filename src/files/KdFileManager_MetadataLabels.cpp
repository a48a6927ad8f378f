// Label colours and the progress shown on files, of KdFileManager.
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "common/DateText.h"
#include "files/KdFileManager.h"
#include "platform/Platform.h"

namespace {

constexpr char kProgressAttr[] = "com.apple.progress.fractionCompleted";
// The creation date a file had before its first progress, so that clearing
// the progress can put it back: seconds since 1970 with nanoseconds, or
// "none" when it had none.
constexpr char kSavedCreationAttr[] = "com.quillfen.progress.creationDate";
// 1984-01-24 08:00:00 +0000: the creation date that marks a file in progress.
constexpr std::chrono::seconds kProgressMarkerDate{443779200};

constexpr std::array<KdFileManager::Color, 8> kLabelColors = {{
    {},
    {0.0, 0.0, 0.72, 1.0},      // grey
    {0.2056, 0.5, 0.85, 1.0},   // green
    {0.7917, 0.26, 0.86, 1.0},  // purple
    {0.5789, 0.56, 0.98, 1.0},  // blue
    {0.1388, 0.54, 0.95, 1.0},  // yellow
    {0.0083, 0.54, 1.0, 1.0},   // red
    {0.0888, 0.52, 0.98, 1.0},  // orange
}};

std::string dateText(KdFileManager::Date date) {
  return kd::exactSecondsText(date);
}

std::optional<KdFileManager::Date> parseDate(const std::string& text) {
  char* end = nullptr;
  long long sec = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str()) return std::nullopt;
  long nsec = *end == '.' ? std::strtol(end + 1, nullptr, 10) : 0;
  return KdFileManager::Date(std::chrono::duration_cast<KdFileManager::Date::duration>(
      std::chrono::seconds(sec) + std::chrono::nanoseconds(nsec)));
}

std::optional<std::string> readSmallAttr(kd::FileMetadata& metadata, const std::string& path,
                                         const char* name) {
  char buffer[64];
  std::int64_t got = metadata.getExtendedAttribute(path, name, buffer, sizeof buffer);
  if (got < 0) return std::nullopt;
  return std::string(buffer, static_cast<std::size_t>(got));
}

}  // namespace

void KdFileManager::setFinderProgress(float progress, const std::string& forFile) {
  auto& metadata = kd::platform().fileMetadata();
  if (progress >= 0) {
    char text[64];
    std::snprintf(text, sizeof text, "%0.3f", static_cast<double>(progress));
    metadata.setExtendedAttribute(forFile, kProgressAttr, text);
    // Only the creation date changes; the one from before the first
    // progress is kept for the clearing.
    if (!readSmallAttr(metadata, forFile, kSavedCreationAttr)) {
      auto before = metadata.creationDate(forFile);
      metadata.setExtendedAttribute(forFile, kSavedCreationAttr,
                                    before ? dateText(*before) : std::string("none"));
    }
    // A progress marker is a hint: a file that keeps no date shows none.
    (void)metadata.setCreationDate(forFile, Date(kProgressMarkerDate));
  } else {  // negative, or not a number
    metadata.removeExtendedAttribute(forFile, kProgressAttr);
    if (auto saved = readSmallAttr(metadata, forFile, kSavedCreationAttr)) {
      (void)metadata.setCreationDate(forFile, parseDate(*saved));
      metadata.removeExtendedAttribute(forFile, kSavedCreationAttr);
    }
  }
}

void KdFileManager::removeFinderProgressForFile(const std::string& path) {
  setFinderProgress(-1.0f, path);
}

long KdFileManager::finderColorIndexForPath(const std::string& path) {
  if (path.empty()) return 0;
  return kd::platform().fileMetadata().labelNumber(path);
}

void KdFileManager::setFinderColorIndex(long index, const std::optional<std::string>& forPath) {
  if (!forPath || index < 0 || index > 7) return;
  kd::platform().fileMetadata().setLabelNumber(*forPath, static_cast<int>(index));
}

std::optional<KdFileManager::Color> KdFileManager::finderColorForColorIndex(long index) {
  if (index < 1 || index > 7) return std::nullopt;
  return kLabelColors[static_cast<std::size_t>(index)];
}

std::optional<KdFileManager::Color> KdFileManager::finderColorForPath(const std::string& path) {
  return finderColorForColorIndex(finderColorIndexForPath(path));
}
