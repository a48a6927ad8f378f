// The plain file operations under KdFileManager's: removing, copying and
// moving trees without ever replacing anything.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wctype.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "auth/KdAuthorization.h"
#include "common/Path.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "files/FileOperations.h"
#include "log/Format.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "platform/FileIO.h"
#include "platform/FileMetadata.h"
#include "platform/Platform.h"

namespace kd::files {

namespace {

struct DirCloser {
  void operator()(DIR* d) const { closedir(d); }
};

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

std::optional<std::vector<std::string>> namesAt(int folder) {
  UniqueFd copy(::fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!copy) return std::nullopt;
  std::unique_ptr<DIR, DirCloser> dir(::fdopendir(copy.get()));
  if (!dir) return std::nullopt;
  copy.release();
  ::rewinddir(dir.get());
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* e = ::readdir(dir.get())) {
    const std::string_view name(e->d_name);
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

// Opens the folder `name` of `parent` (described by `st`) to empty it. A
// folder of the user's own that the user may not list or change is given
// the owner's rights back first: it is going, and its owner could do so.
UniqueFd openToEmpty(int parent, const char* name, const struct stat& st) {
  const uid_t self = ::geteuid();
  const bool own = self != 0 && st.st_uid == self;
  UniqueFd folder(retryOnEintr([&] { return ::openat(parent, name, kFolderFlags); }));
  if (!folder && errno == EACCES && own &&
      ::fchmodat(parent, name, (st.st_mode & 07777) | S_IRWXU, AT_SYMLINK_NOFOLLOW) == 0)
    folder = UniqueFd(retryOnEintr([&] { return ::openat(parent, name, kFolderFlags); }));
  if (!folder) return folder;
  struct stat opened {};
  if (own && ::fstat(folder.get(), &opened) == 0 && opened.st_uid == self &&
      (opened.st_mode & S_IRWXU) != S_IRWXU)
    ::fchmod(folder.get(), (opened.st_mode & 07777) | S_IRWXU);
  return folder;
}

// Removes `name` of the open folder `parent`, and everything below it when it
// is a folder; links are removed, never followed.
int removeAt(int parent, const char* name) {
  struct stat st {};
  if (::fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
  if (S_ISDIR(st.st_mode)) {
    UniqueFd folder = openToEmpty(parent, name, st);
    if (!folder) return errno;
    std::optional<std::vector<std::string>> names = namesAt(folder.get());
    if (!names) return errno;
    for (const std::string& child : *names)
      if (int err = removeAt(folder.get(), child.c_str())) return err;
  }
  if (::unlinkat(parent, name, S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT)
    return errno;
  return 0;
}

// Copies the data of one open file into another.
int copyData(int from, int to) {
  bool ranged = true;
  for (;;) {
    if (ranged) {
      const ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
      if (n > 0) continue;
      if (n == 0) return 0;
      if (errno == EINTR) continue;
      if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP &&
          errno != EPERM)
        return errno;
      ranged = false;  // not between these file systems: plain reads and writes
    }
    static constexpr std::size_t kChunk = 256 * 1024;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kChunk]);
    if (!buffer) return ENOMEM;
    for (;;) {
      const ssize_t n = retryOnEintr([&] { return ::read(from, buffer.get(), kChunk); });
      if (n < 0) return errno;
      if (n == 0) return 0;
      for (ssize_t done = 0; done < n;) {
        const ssize_t w = retryOnEintr([&] { return ::write(to, buffer.get() + done, n - done); });
        if (w < 0) return errno;
        done += w;
      }
    }
  }
}

void keepOwner(int fd, const struct stat& st) {
  // Only root can give a copy its source's owner; for others it is theirs.
  if (::geteuid() == 0 && ::fchown(fd, st.st_uid, st.st_gid) != 0) {
  }
}

// Puts the extended attributes of the open item `from` (labels, tags, the
// stored creation date) on its open copy `to`; those the copy's file system
// cannot hold are noted for the caller to tell.
void keepAttributes(int from, int to, const char* name, AttributeNotes& notes) {
  const std::vector<std::string> lost =
      kd::platform().fileMetadata().copyExtendedAttributes(from, to);
  if (lost.empty()) return;
  std::string note = std::string(name) + ":";
  for (std::size_t i = 0; i < lost.size(); ++i) note += (i ? ", " : " ") + lost[i];
  notes.push_back(std::move(note));
}

// Copies `name` of the folder `from` to `name` of the folder `to` (which must
// not exist there), noting the attributes it could not keep.
int copyAt(int fromFolder, const char* fromName, int toFolder, const char* toName,
           AttributeNotes& notes) {
  struct stat st {};
  if (::fstatat(fromFolder, fromName, &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  if (S_ISLNK(st.st_mode)) {
    std::string target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 4096) + 1, '\0');
    const ssize_t n = ::readlinkat(fromFolder, fromName, target.data(), target.size());
    if (n < 0) return errno;
    target.resize(static_cast<std::size_t>(n));
    if (::symlinkat(target.c_str(), toFolder, toName) != 0) return errno;
    fileio::setTimesAt(toFolder, toName, st.st_atim, st.st_mtim);
    if (::geteuid() == 0 &&
        ::fchownat(toFolder, toName, st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW)) {
    }
    return 0;
  }
  if (S_ISREG(st.st_mode)) {
    UniqueFd in(retryOnEintr(
        [&] { return ::openat(fromFolder, fromName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }));
    if (!in) return errno;
    UniqueFd out(retryOnEintr([&] {
      return ::openat(toFolder, toName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!out) return errno;
    if (int err = copyData(in.get(), out.get())) return err;
    keepAttributes(in.get(), out.get(), fromName, notes);
    keepOwner(out.get(), st);
    if (::fchmod(out.get(), st.st_mode & 07777) != 0) return errno;
    if (int err = fileio::setTimes(out.get(), st.st_atim, st.st_mtim)) return err;
    if (int err = fileio::flushToDevice(out.get())) return err;
    const int fd = out.release();
    return ::close(fd) == 0 ? 0 : errno;
  }
  if (S_ISDIR(st.st_mode)) {
    UniqueFd in(retryOnEintr([&] { return ::openat(fromFolder, fromName, kFolderFlags); }));
    if (!in) return errno;
    if (::mkdirat(toFolder, toName, 0700) != 0) return errno;
    UniqueFd out(retryOnEintr([&] { return ::openat(toFolder, toName, kFolderFlags); }));
    if (!out) return errno;
    std::optional<std::vector<std::string>> names = namesAt(in.get());
    if (!names) return errno;
    for (const std::string& name : *names)
      if (int err = copyAt(in.get(), name.c_str(), out.get(), name.c_str(), notes)) return err;
    keepAttributes(in.get(), out.get(), fromName, notes);
    keepOwner(out.get(), st);
    if (::fchmod(out.get(), st.st_mode & 07777) != 0) return errno;
    return fileio::setTimes(out.get(), st.st_atim, st.st_mtim);
  }
  if (S_ISFIFO(st.st_mode)) return ::mkfifoat(toFolder, toName, st.st_mode & 07777) ? errno : 0;
  return ENOTSUP;  // devices and sockets are not copied
}

locale_t utf8Locale() {
  static locale_t locale = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  return locale;
}

}  // namespace

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

Result<void> checkNotSystemPath(const std::string& path, const char* message) {
  // The same rule as the privileged commands: a root process takes the
  // ordinary way, and must not remove or move the system away either.
  if (!KdLocalPaths::isPathSystemDirectory(path, true) && !KdAuthorization::isProtectedTarget(path))
    return success();
  kd::platform().systemLog(kd::format(message, path));
  return Error::described("a system folder is never changed");
}

Result<void> checkNotFolderAlias(const std::string& path, const char* message) {
  if (!namesFolderByAlias(path)) return success();
  KdLog::appendLog(message, path);
  return Error::described(
      "a path ending in \".\" or \"..\" names a folder by another name; name the "
      "folder itself");
}

Result<void> removeTree(const std::string& path) {
  if (namesFolderByAlias(path)) return Error{EINVAL};
  const std::string name = path::lastComponent(path);
  if (name == "/") return Error{EBUSY};
  std::string parent = path::deletingLastComponent(path);
  if (parent.empty()) parent = ".";
  // The folder that holds the item is followed as given; the item never is.
  UniqueFd folder(
      retryOnEintr([&] { return ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!folder) return errno == ENOENT ? success() : Error::fromErrno();
  return fromCode(removeAt(folder.get(), name.c_str()));
}

bool namesFolderByAlias(const std::string& path) {
  const std::string name = path::lastComponent(path);
  return name == "." || name == "..";
}

Result<void> setModificationTime(const std::string& path, const struct timespec& modified) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return Error::fromErrno();
  return fromCode(fileio::setTimesAt(AT_FDCWD, path, st.st_atim, modified));
}

Result<void> renameNoReplace(const std::string& from, const std::string& to) {
  // Where the file system cannot refuse by itself, it is looked at first.
  return fromCode(fileio::renameNoReplaceOrLook(AT_FDCWD, from, AT_FDCWD, to));
}

std::string temporarySibling(const std::string& path, std::string_view purpose) {
  std::string name = path::lastComponent(path);
  if (name.size() > 120) name.resize(120);
  std::string unique = KdLocalPaths::uuid();
  if (unique.size() > 80) unique.resize(80);
  return path::append(path::deletingLastComponent(path),
                      "." + name + "." + std::string(purpose) + "-" + unique);
}

Result<AttributeNotes> copyTree(const std::string& from, const std::string& to) {
  struct stat st {
  }, there{};
  if (::lstat(from.c_str(), &st) != 0) return Error::fromErrno();
  if (::lstat(to.c_str(), &there) == 0) return Error{EEXIST};
  std::string parent = path::deletingLastComponent(to);
  if (parent.empty()) parent = ".";
  std::string fromParent = path::deletingLastComponent(from);
  if (fromParent.empty()) fromParent = ".";
  // The source's folder is followed as given; the item itself never is.
  UniqueFd fromFolder(
      retryOnEintr([&] { return ::open(fromParent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!fromFolder) return Error::fromErrno();
  UniqueFd toFolder(
      retryOnEintr([&] { return ::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!toFolder) return Error::fromErrno();
  // A folder copied into itself would copy its copy for ever.
  char realFrom[PATH_MAX], realParent[PATH_MAX];
  if (S_ISDIR(st.st_mode) && ::realpath(from.c_str(), realFrom) &&
      ::realpath(parent.c_str(), realParent)) {
    const std::string inside = std::string(realFrom) + "/";
    if (std::string(realParent) + "/" == inside || std::string(realParent).starts_with(inside))
      return Error{EINVAL};
  }
  const std::string partial = path::lastComponent(temporarySibling(to, "kdcopy"));
  const std::string fromName = path::lastComponent(from);
  AttributeNotes notes;
  const int err =
      copyAt(fromFolder.get(), fromName.c_str(), toFolder.get(), partial.c_str(), notes);
  const std::string partialPath = path::append(parent, partial);
  Result<void> done = fromCode(err);
  if (done) done = renameNoReplace(partialPath, to);
  if (done) return notes;
  (void)removeTree(partialPath);  // what is left of the copy; the failure told is the copy's
  return done.error();
}

Result<AttributeNotes> moveItem(const std::string& from, const std::string& to) {
  Result<void> renamed = renameNoReplace(from, to);
  if (renamed) return AttributeNotes{};
  if (renamed.error().code != EXDEV) return renamed.error();
  Result<AttributeNotes> copied = copyTree(from, to);
  if (!copied) return copied;
  // The copy is complete under its name: only now does the source go.
  if (Result<void> removed = removeTree(from); !removed) return removed.error();
  return copied;
}

Result<std::vector<std::string>> entryNames(const std::string& folder, bool followLink) {
  UniqueFd fd(retryOnEintr([&] {
    return ::open(folder.c_str(),
                  O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW));
  }));
  if (!fd) return Error::fromErrno();
  return entryNamesAt(fd.get());
}

Result<std::vector<std::string>> entryNamesAt(int folder) {
  std::optional<std::vector<std::string>> names = namesAt(folder);
  if (!names) return Error::fromErrno();
  return std::move(*names);
}

std::string lowercase(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  locale_t locale = utf8Locale();
  for (std::size_t i = 0; i < text.size();) {
    char32_t c = 0;
    const std::size_t len = utf8::decodeAt(text, i, c);
    if (len <= 1 || !locale) {
      const char c = text[i];
      out.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
      i += len ? len : 1;
      continue;
    }
    utf8::appendCodePoint(out, static_cast<char32_t>(::towlower_l(static_cast<wint_t>(c), locale)));
    i += len;
  }
  return out;
}

}  // namespace kd::files
