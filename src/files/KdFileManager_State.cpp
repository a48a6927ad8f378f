// File state queries, sizes and names as text, of KdFileManager.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "common/Path.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "files/KdFileManager.h"
#include "platform/Platform.h"

namespace {

using Date = KdFileManager::Date;

Date dateOf(const struct timespec& ts) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(ts.tv_sec) +
                                                         std::chrono::nanoseconds(ts.tv_nsec)));
}

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

// The bytes below an open folder. Entries are looked at without following
// links, so a link counts as itself and the walk never leaves the tree.
std::uint64_t folderSize(kd::UniqueFd folder) {
  std::unique_ptr<DIR, DirCloser> dir(::fdopendir(folder.get()));
  if (!dir) return 0;
  folder.release();  // the stream owns it now
  const int fd = ::dirfd(dir.get());
  std::uint64_t total = 0;
  while (const dirent* e = ::readdir(dir.get())) {
    const std::string_view name(e->d_name);
    if (name == "." || name == "..") continue;
    struct stat st {};
    if (::fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      kd::UniqueFd sub(kd::retryOnEintr([&] {
        return ::openat(fd, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      }));
      if (sub) total += folderSize(std::move(sub));
    } else {
      total += static_cast<std::uint64_t>(st.st_size);
    }
  }
  return total;
}

// Unicode white space and line ends.
bool isBlank(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

std::string trimBlanks(std::string_view s) {
  std::size_t begin = 0, end = 0;  // [begin, end) spans the first to the last non-blank
  bool seen = false;
  for (std::size_t i = 0; i < s.size();) {
    char32_t c = 0;
    std::size_t len = kd::utf8::decodeAt(s, i, c);
    bool blank = len != 0 && isBlank(c);
    if (len == 0) len = 1;
    if (!blank) {
      if (!seen) begin = i;
      seen = true;
      end = i + len;
    }
    i += len;
  }
  return seen ? std::string(s.substr(begin, end - begin)) : std::string();
}

}  // namespace

bool KdFileManager::fileExistsAtPath(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

bool KdFileManager::isDirectoryAtPath(const std::string& path) {
  struct stat st {};
  return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool KdFileManager::isPackageAtPath(const std::string& path) {
  return !path.empty() && kd::platform().desktop().isFilePackage(path);
}

bool KdFileManager::isSymbolicLinkAtPath(const std::string& path) {
  char buf[1];
  return !path.empty() && ::readlink(path.c_str(), buf, sizeof buf) >= 0;
}

std::optional<KdFileManager::Date> KdFileManager::modificationDateForFile(const std::string& path) {
  struct stat st {};
  if (path.empty() || ::lstat(path.c_str(), &st) != 0) return std::nullopt;
  return dateOf(st.st_mtim);
}

std::optional<KdFileManager::Date> KdFileManager::creationDateForFile(const std::string& path) {
  if (path.empty()) return std::nullopt;
  return kd::platform().fileMetadata().creationDate(path);
}

std::uint64_t KdFileManager::fileSize(const std::string& path) {
  if (path.empty()) return 0;
  if (isDirectoryAtPath(path)) {
    kd::UniqueFd folder(
        kd::retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return folder ? folderSize(std::move(folder)) : 0;
  }
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return 0;
  return static_cast<std::uint64_t>(st.st_size);
}

std::string KdFileManager::formatFileSize(double size) {
  constexpr double kStep = 1.0 / 1024.0;  // exact in binary floating point
  char text[64];
  if (size < 1024.0)
    std::snprintf(text, sizeof text, "%0.0f B", size);
  else if (size < 1048576.0)
    std::snprintf(text, sizeof text, "%0.2f KB", size * kStep);
  else if (size < 1073741824.0)
    std::snprintf(text, sizeof text, "%0.2f MB", size * kStep * kStep);
  else if (size < 1099511627776.0)
    std::snprintf(text, sizeof text, "%0.2f GB", size * kStep * kStep * kStep);
  else  // a value that is not a number ends here too
    std::snprintf(text, sizeof text, "%0.2f TB", size * kStep * kStep * kStep * kStep);
  return text;
}

std::string KdFileManager::validateFilename(const std::string& name) {
  if (name == ".") return "";
  std::string_view rest(name);
  if (!rest.empty() && rest.front() == '.') rest.remove_prefix(1);
  std::string trimmed = trimBlanks(rest);
  std::string out;
  for (char c : trimmed)
    if (c != '/') out.push_back(c);
  std::erase(out, ':');
  // A name of dots only that names the folder itself or its parent would
  // make the caller act on a folder instead of a file.
  if (out == "." || out == "..") return "";
  return out;
}

std::string KdFileManager::uniqueFilename(const std::string& path) {
  // A dangling link counts as taken: writing to its name would write
  // wherever it points.
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return path;
  std::string stem = path;
  while (stem.size() > 1 && stem.back() == '/') stem.pop_back();
  const std::string ext = kd::path::extension(stem);
  if (!ext.empty()) stem.resize(stem.size() - ext.size() - 1);
  for (long counter = 2;; ++counter) {
    char number[32];
    std::snprintf(number, sizeof number, " %li", counter);
    std::string candidate = stem + number;
    if (!ext.empty()) candidate += "." + ext;
    if (::lstat(candidate.c_str(), &st) != 0) return candidate;
  }
}
