// Zip archives of KdFileManager, written and read with libarchive.
//
// Writing streams every file in chunks into a temporary archive beside the
// destination, which takes its name only when the writer finished. Reading
// extracts into a temporary folder beside the destination folder. Every
// folder on the way to an entry is opened without following links, so no
// entry is ever written through a link; entries with absolute paths or ".."
// and links that lead out of the folder are refused by name. Memory stays
// bounded by the chunk size whatever the archive's size.
#include <archive.h>
#include <archive_entry.h>
#include <dirent.h>
#include <fcntl.h>
#include <locale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "common/Folders.h"
#include "common/Path.h"
#include "common/UniqueFd.h"
#include "common/Utf8.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"
#include "files/KdFileManager_Failure.h"
#include "log/KdLog.h"
#include "platform/FileIO.h"

namespace {

namespace files = kd::files;

constexpr std::size_t kChunk = 64 * 1024;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct WriterFree {
  void operator()(archive* a) const { archive_write_free(a); }
};
struct ReaderFree {
  void operator()(archive* a) const { archive_read_free(a); }
};
struct EntryFree {
  void operator()(archive_entry* e) const { archive_entry_free(e); }
};
using Writer = std::unique_ptr<archive, WriterFree>;
using Reader = std::unique_ptr<archive, ReaderFree>;
using Entry = std::unique_ptr<archive_entry, EntryFree>;

std::string errorOf(archive* a) {
  const char* text = archive_error_string(a);
  return text ? text : "the archive cannot be used";
}

// Names travel as UTF-8 whatever the process's locale: libarchive converts
// names through the thread's locale, which this sets to a UTF-8 one for the
// scope of an archive operation (uselocale acts on this thread only).
// Owns nothing but the restoring; lives on one thread's stack.
class Utf8Names {
 public:
  Utf8Names() {
    static const locale_t utf8 =
        ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    if (utf8) previous_ = ::uselocale(utf8);
  }
  ~Utf8Names() {
    if (previous_) ::uselocale(previous_);
  }
  Utf8Names(const Utf8Names&) = delete;
  Utf8Names& operator=(const Utf8Names&) = delete;

 private:
  locale_t previous_ = static_cast<locale_t>(nullptr);
};

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

// --- Writing -------------------------------------------------------------------------

// Adds files, folders and links to an open zip writer. Borrows the writer
// from its caller; one thread, one archive. A failure names the entry
// ("Clips/a.mov: Permission denied").
class ZipWriter {
 public:
  // `output` is the archive being written, which is never put into itself.
  ZipWriter(archive* a, const struct stat& output) : a_(a), output_(output) {}

  // Adds the item at `path` (opened relative to `at`) as `name`, and
  // everything below a folder. `follow` follows a link at the item itself.
  kd::Result<void> add(int at, const std::string& item, const std::string& name, bool follow,
                       bool withEntry = true) {
    struct stat st {};
    if (::fstatat(at, item.c_str(), &st, follow ? 0 : AT_SYMLINK_NOFOLLOW) != 0)
      return failed(name);
    if (st.st_dev == output_.st_dev && st.st_ino == output_.st_ino) return kd::success();
    if (S_ISDIR(st.st_mode)) {
      kd::UniqueFd folder(kd::retryOnEintr([&] {
        return ::openat(at, item.c_str(),
                        O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
      }));
      if (!folder) return failed(name);
      if (withEntry) {
        if (kd::Result<void> added = header(st, name + "/", nullptr); !added) return added;
      }
      kd::Result<std::vector<std::string>> names = files::entryNamesAt(folder.get());
      if (!names) return kd::Error{names.error().code, shownAs(name)};
      for (const std::string& child : *names) {
        kd::Result<void> added =
            add(folder.get(), child, name.empty() ? child : name + "/" + child, false);
        if (!added) return added;
      }
      return kd::success();
    }
    if (S_ISLNK(st.st_mode)) {
      std::string target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 4096) + 1, '\0');
      const ssize_t n = ::readlinkat(at, item.c_str(), target.data(), target.size());
      if (n < 0) return failed(name);
      target.resize(static_cast<std::size_t>(n));
      return header(st, name, &target);
    }
    if (!S_ISREG(st.st_mode)) return failed(name, "not a file, folder or link");
    kd::UniqueFd file(kd::retryOnEintr([&] {
      return ::openat(at, item.c_str(), O_RDONLY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
    }));
    if (!file) return failed(name);
    if (kd::Result<void> added = header(st, name, nullptr); !added) return added;
    std::unique_ptr<char[]> buffer(new (std::nothrow) char[kChunk]);
    if (!buffer) return kd::Error{ENOMEM, shownAs(name)};
    std::uint64_t total = 0;
    for (;;) {
      const ssize_t n = kd::retryOnEintr([&] { return ::read(file.get(), buffer.get(), kChunk); });
      if (n < 0) return failed(name);
      if (n == 0) break;
      if (archive_write_data(a_, buffer.get(), static_cast<std::size_t>(n)) != n)
        return failed(name, archive_error_string(a_));
      total += static_cast<std::uint64_t>(n);
    }
    // A file that changed size while it was read would be stored wrong.
    if (total != static_cast<std::uint64_t>(st.st_size))
      return failed(name, "it changed while read");
    return kd::success();
  }

 private:
  kd::Result<void> header(const struct stat& st, const std::string& name,
                          const std::string* linkTarget) {
    // The archive promises UTF-8 names (and the library cannot take other
    // bytes as such): a name or link target that is none is refused.
    if (!kd::utf8::isValid(name))
      return failed(shown(name), "the name is not valid UTF-8, as a zip archive's names must be");
    if (linkTarget && !kd::utf8::isValid(*linkTarget))
      return failed(name, ("the link's target " + shown(*linkTarget) +
                           " is not valid UTF-8, as a zip archive's names must be")
                              .c_str());
    Entry entry(archive_entry_new());
    if (!entry) return kd::Error{ENOMEM, shownAs(name)};
    archive_entry_set_pathname_utf8(entry.get(), name.c_str());
    archive_entry_set_perm(entry.get(), st.st_mode & 07777);
    archive_entry_set_mtime(entry.get(), st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
    if (S_ISDIR(st.st_mode)) {
      archive_entry_set_filetype(entry.get(), AE_IFDIR);
    } else if (linkTarget) {
      archive_entry_set_filetype(entry.get(), AE_IFLNK);
      archive_entry_set_symlink_utf8(entry.get(), linkTarget->c_str());
    } else {
      archive_entry_set_filetype(entry.get(), AE_IFREG);
      archive_entry_set_size(entry.get(), st.st_size);
    }
    if (archive_write_header(a_, entry.get()) < ARCHIVE_WARN)
      return failed(name, archive_error_string(a_));
    return kd::success();
  }

  // The entry as a failure names it: "." for the top folder without its entry.
  static std::string shownAs(const std::string& name) { return name.empty() ? "." : name; }
  // The system's error of the moment about the entry.
  static kd::Error failed(const std::string& name) { return kd::Error::fromErrno(shownAs(name)); }
  static kd::Error failed(const std::string& name, const char* reason) {
    return kd::Error::described(shownAs(name) + ": " + (reason ? reason : "write error"));
  }

  // A name as it can be shown: bytes that are no UTF-8 as \xNN.
  static std::string shown(const std::string& name) { return kd::utf8::withBytesShown(name); }

  archive* a_;
  struct stat output_;
};

// --- Reading -------------------------------------------------------------------------

// The components of an entry's path with "." and empty ones dropped; none
// when it is absolute or climbs with "..".
std::optional<std::vector<std::string>> insideComponents(const std::string& path) {
  if (path.empty() || path[0] == '/') return std::nullopt;
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(start, end - start);
    if (part == "..") return std::nullopt;
    if (!part.empty() && part != ".") parts.push_back(part);
    start = end + 1;
  }
  return parts;
}

// A link target stays inside when it is relative, climbs ("..") only at its
// start and no higher than the link's own folder, and then only descends.
// Every link obeying this resolves inside the tree, links through links
// included.
bool targetStaysInside(const std::string& target, std::size_t depth) {
  if (target.empty() || target[0] == '/') return false;
  std::size_t climbs = 0;
  bool descending = false;
  std::size_t start = 0;
  while (start <= target.size()) {
    std::size_t end = target.find('/', start);
    if (end == std::string::npos) end = target.size();
    const std::string part = target.substr(start, end - start);
    if (part == "..") {
      if (descending) return false;
      ++climbs;
    } else if (!part.empty() && part != ".") {
      descending = true;
    }
    start = end + 1;
  }
  return climbs <= depth;
}

// Extracts every entry of an open reader below an open folder. Borrows the
// reader and the folder's descriptor; owns the list of folders whose
// permissions are set at the end. One thread, one archive. A failure names
// the entry, or "the archive" when none is at fault.
class Extractor {
 public:
  Extractor(archive* a, int root) : a_(a), root_(root) {}

  kd::Result<void> extractAll() {
    archive_entry* entry = nullptr;
    for (;;) {
      const int rc = archive_read_next_header(a_, &entry);
      if (rc == ARCHIVE_EOF) break;
      if (rc < ARCHIVE_WARN) return failed("", archive_error_string(a_));
      if (kd::Result<void> done = extract(entry); !done) return done;
    }
    // Folders get their own permissions and dates last, deepest first, once
    // nothing more is written into them.
    for (auto it = folders_.rbegin(); it != folders_.rend(); ++it) {
      kd::UniqueFd folder = open(it->parts, it->parts.size(), false);
      if (!folder) continue;
      ::fchmod(folder.get(), it->mode);
      kd::fileio::setTimes(folder.get(), it->mtime, it->mtime);
    }
    return kd::success();
  }

 private:
  struct Folder {
    std::vector<std::string> parts;
    mode_t mode;
    struct timespec mtime;
  };

  static const char* nameOf(archive_entry* entry) {
    const char* utf8 = archive_entry_pathname_utf8(entry);
    return utf8 ? utf8 : archive_entry_pathname(entry);
  }

  // Opens the folder made of the first `count` components, creating missing
  // ones when asked; never through a link.
  kd::UniqueFd open(const std::vector<std::string>& parts, std::size_t count, bool create) {
    kd::UniqueFd at(::fcntl(root_, F_DUPFD_CLOEXEC, 0));
    for (std::size_t i = 0; at && i < count; ++i) {
      const char* part = parts[i].c_str();
      // A folder without an entry of its own gets the usual mode.
      if (create && ::mkdirat(at.get(), part, 0755) != 0 && errno != EEXIST) return kd::UniqueFd();
      at = kd::UniqueFd(kd::retryOnEintr([&] { return ::openat(at.get(), part, kFolderFlags); }));
    }
    return at;
  }

  kd::Result<void> extract(archive_entry* entry) {
    const std::string name = nameOf(entry) ? nameOf(entry) : "";
    std::optional<std::vector<std::string>> parts = insideComponents(name);
    if (!parts) return outside(name);
    if (parts->empty()) return kd::success();  // the archive's own top folder ("./")
    kd::UniqueFd parent = open(*parts, parts->size() - 1, true);
    if (!parent) return errno == ELOOP || errno == ENOTDIR ? outside(name) : failed(name);
    const char* leaf = parts->back().c_str();
    const mode_t mode = archive_entry_perm(entry) & 0777;  // never set-id bits
    const struct timespec mtime = {archive_entry_mtime(entry), archive_entry_mtime_is_set(entry)
                                                                   ? archive_entry_mtime_nsec(entry)
                                                                   : static_cast<long>(UTIME_OMIT)};

    if (const char* hard = archive_entry_hardlink(entry)) {
      std::optional<std::vector<std::string>> target = insideComponents(hard);
      if (!target || target->empty()) return outside(name);
      kd::UniqueFd targetParent = open(*target, target->size() - 1, false);
      if (!targetParent) return outside(name);
      const char* targetLeaf = target->back().c_str();
      struct stat st {};
      if (::fstatat(targetParent.get(), targetLeaf, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return failed(name);
      if (S_ISLNK(st.st_mode)) {
        // A hard link to a link is that link at another depth, where its
        // target may lead out: it is checked like any link, and made as a
        // link of its own with the target that was checked.
        std::string linked(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 4096) + 1, '\0');
        const ssize_t n =
            ::readlinkat(targetParent.get(), targetLeaf, linked.data(), linked.size());
        if (n < 0) return failed(name);
        linked.resize(static_cast<std::size_t>(n));
        if (!targetStaysInside(linked, parts->size() - 1)) return outside(name);
        if (::symlinkat(linked.c_str(), parent.get(), leaf) != 0) return failed(name);
        kd::fileio::setTimesAt(parent.get(), leaf, mtime, mtime);
        return kd::success();
      }
      if (::linkat(targetParent.get(), targetLeaf, parent.get(), leaf, 0) != 0) return failed(name);
      return kd::success();
    }
    switch (archive_entry_filetype(entry)) {
      case AE_IFDIR: {
        if (::mkdirat(parent.get(), leaf, 0700) != 0 && errno != EEXIST) return failed(name);
        kd::UniqueFd folder(
            kd::retryOnEintr([&] { return ::openat(parent.get(), leaf, kFolderFlags); }));
        if (!folder) return errno == ELOOP || errno == ENOTDIR ? outside(name) : failed(name);
        folders_.push_back({*parts, mode ? mode : 0755, mtime});
        return kd::success();
      }
      case AE_IFLNK: {
        const char* utf8 = archive_entry_symlink_utf8(entry);
        const char* target = utf8 ? utf8 : archive_entry_symlink(entry);
        if (!target || !targetStaysInside(target, parts->size() - 1)) return outside(name);
        if (::symlinkat(target, parent.get(), leaf) != 0) return failed(name);
        kd::fileio::setTimesAt(parent.get(), leaf, mtime, mtime);
        return kd::success();
      }
      case AE_IFREG: {
        kd::UniqueFd file(kd::retryOnEintr([&] {
          return ::openat(parent.get(), leaf, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          0600);
        }));
        if (!file) return errno == ELOOP ? outside(name) : failed(name);
        std::unique_ptr<char[]> buffer(new (std::nothrow) char[kChunk]);
        if (!buffer) return kd::Error{ENOMEM, shownAs(name)};
        for (;;) {
          const la_ssize_t n = archive_read_data(a_, buffer.get(), kChunk);
          if (n < 0) return failed(name, archive_error_string(a_));
          if (n == 0) break;
          for (la_ssize_t done = 0; done < n;) {
            const ssize_t w = kd::retryOnEintr([&] {
              return ::write(file.get(), buffer.get() + done, static_cast<std::size_t>(n - done));
            });
            if (w < 0) return failed(name);
            done += w;
          }
        }
        // The seam's calls answer the error number and leave it in errno.
        if (::fchmod(file.get(), mode) != 0 ||
            kd::fileio::setTimes(file.get(), mtime, mtime) != 0 ||
            kd::fileio::flushToDevice(file.get()) != 0)
          return failed(name);
        const int fd = file.release();
        if (::close(fd) != 0) return failed(name);
        return kd::success();
      }
      default:
        return failed(name, "not a file, folder or link");
    }
  }

  static kd::Error outside(const std::string& name) {
    return kd::Error::described("the entry " + name + " would land outside the folder");
  }
  static std::string shownAs(const std::string& name) {
    return name.empty() ? "the archive" : name;
  }
  // The system's error of the moment about the entry.
  static kd::Error failed(const std::string& name) { return kd::Error::fromErrno(shownAs(name)); }
  // The library's reason, or the system's error when it gives none.
  static kd::Error failed(const std::string& name, const char* reason) {
    if (!reason) return failed(name);
    return kd::Error::described(shownAs(name) + ": " + reason);
  }

  archive* a_;
  int root_;
  std::vector<Folder> folders_;
};

// Writes the zip of `source` into the new file `partial`, which stands for
// `destination` in what a failure says.
kd::Result<void> writeZip(const std::string& source, const std::string& partial,
                          const std::string& destination, bool includeParent) {
  std::string sourceFolder = kd::path::deletingLastComponent(source);
  if (sourceFolder.empty()) sourceFolder = ".";
  kd::UniqueFd at(kd::retryOnEintr(
      [&] { return ::open(sourceFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (!at) return kd::Error::fromErrno(source);
  kd::UniqueFd out(kd::retryOnEintr([&] {
    return ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  }));
  if (!out) return kd::Error::fromErrno(destination);
  Writer writer(archive_write_new());
  if (!writer) return kd::Error{ENOMEM};
  if (archive_write_set_format_zip(writer.get()) != ARCHIVE_OK ||
      archive_write_set_options(writer.get(), "zip:hdrcharset=UTF-8") < ARCHIVE_WARN ||
      archive_write_open_fd(writer.get(), out.get()) != ARCHIVE_OK)
    return kd::Error::described(errorOf(writer.get()));
  struct stat self {};
  ::fstat(out.get(), &self);
  ZipWriter zip(writer.get(), self);
  const std::string name = kd::path::lastComponent(source);
  struct stat st {};
  const bool folder = ::stat(source.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  // Without the parent a folder's contents are the top entries.
  kd::Result<void> added = zip.add(at.get(), name, includeParent || !folder ? name : std::string(),
                                   true, includeParent || !folder);
  if (!added) return added;
  // Only a writer that finished has written the archive's directory.
  if (archive_write_close(writer.get()) != ARCHIVE_OK)
    return kd::Error::described(errorOf(writer.get()));
  return kd::fromCode(kd::fileio::flushToDevice(out.get()), destination);
}

// Extracts `archivePath` into the new, empty folder `root`.
kd::Result<void> extractZip(const std::string& archivePath, int root) {
  Reader reader(archive_read_new());
  if (!reader) return kd::Error{ENOMEM};
  archive_read_support_format_zip(reader.get());
  archive_read_support_format_tar(reader.get());
  // Compression the library decodes itself; never a helper program.
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_filter_bzip2(reader.get());
  archive_read_support_filter_xz(reader.get());
  archive_read_support_filter_zstd(reader.get());
  if (archive_read_open_filename(reader.get(), archivePath.c_str(), kChunk) != ARCHIVE_OK)
    return kd::Error::described(errorOf(reader.get()));
  return Extractor(reader.get(), root).extractAll();
}

}  // namespace

bool KdFileManager::compressFile(const std::string& source, const std::string& toDestinationFile,
                                 bool includeParent) {
  files::clearLastFailure();
  Utf8Names names;
  const std::string& destination = toDestinationFile;
  const std::string partial = files::temporarySibling(destination, "kdzip");
  kd::Result<void> done = writeZip(source, partial, destination, includeParent);
  if (done) {
    // The archive there before goes to the trash only now that its
    // replacement is complete.
    std::optional<kd::Error> notTrashed;
    if (exists(destination) && !trashFile(destination))
      notTrashed = kd::Error::described(destination + ": it cannot be moved to the trash (" +
                                        lastFailureReason() + ")");
    const kd::Result<void> renamed = files::renameNoReplace(partial, destination);
    if (renamed) return true;
    done = notTrashed ? *notTrashed : renamed.error().within(destination);
  }
  ::unlink(partial.c_str());
  KdLog::appendLog("Unable to compress %@: %@", source, done.error().message());
  return files::failWith(done.error());
}

bool KdFileManager::decompressFile(const std::string& archivePath,
                                   const std::string& toDestinationFolder) {
  files::clearLastFailure();
  Utf8Names names;
  const std::string& folder = toDestinationFolder;
  const std::string parent = kd::path::deletingLastComponent(folder);
  // A parent that cannot be made shows as the extraction's failure below.
  if (!parent.empty() && !exists(parent)) (void)kd::createFolders(parent, 0777, std::nullopt);
  const std::string partial = files::temporarySibling(folder, "kdunzip");
  kd::Result<void> done = kd::success();
  if (::mkdir(partial.c_str(), 0777) != 0) {
    done = kd::Error::fromErrno(folder);
  } else {
    kd::UniqueFd root(kd::retryOnEintr([&] { return ::open(partial.c_str(), kFolderFlags); }));
    done = root ? extractZip(archivePath, root.get()) : kd::Error::fromErrno();
    if (done) {
      // The folder there before goes to the trash only now that its
      // replacement is complete.
      if (exists(folder)) trashFile(folder, false);
      const kd::Result<void> renamed = files::renameNoReplace(partial, folder);
      if (renamed) return true;
      done = renamed.error().within(folder);
    }
    // The partial folder, ours; the failure told is the extraction's.
    (void)files::removeTree(partial);
  }
  KdLog::appendLog("Unable to extract %@: %@", archivePath, done.error().message());
  return files::failWith(done.error());
}
