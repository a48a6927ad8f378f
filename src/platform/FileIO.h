// How files that hold footage reach the device: flushing, dropping cached
// pages, setting times and renaming without replacing, the calls whose
// mechanism differs between systems (F_FULLFSYNC and F_NOCACHE on macOS,
// fdatasync and posix_fadvise on Linux).
//
// Free functions on descriptors the caller owns, each answering 0 or the
// system's error number. Built into the lowest library (kd_common), so that
// the common helpers, the log and the file utilities all use them; the
// implementation is chosen by the build (src/platform/<platform>/io/).
// Stateless; callable from any thread.
#pragma once

#include <ctime>
#include <string>

namespace kd::fileio {

// Writes an open file's data, and what is needed to read it back (its size),
// through to the device: fdatasync on Linux, F_FULLFSYNC on macOS (where
// fsync stops at the drive's own cache).
int flushToDevice(int fd);

// The same for an open folder's entries, after a file was created or renamed
// in it: fsync on Linux, F_FULLFSYNC on macOS.
int flushFolderToDevice(int folder);

// Drops an open file's cached pages so that the next read comes from the
// device. Dirty pages stay: flush first. Advice to the system, so nothing to
// report (macOS reads past its cache with F_NOCACHE instead).
void dropCachedPages(int fd);

// Tells the system that an open file is read from start to end, so that it
// reads further ahead (posix_fadvise(POSIX_FADV_SEQUENTIAL) on Linux; macOS
// reads ahead by itself). Advice, so nothing to report.
void readSequentially(int fd);

// Sets the access and modification times of an open file.
int setTimes(int fd, const struct timespec& accessed, const struct timespec& modified);

// Sets them on the item `name` in an open folder, never through a link.
int setTimesAt(int folder, const std::string& name, const struct timespec& accessed,
               const struct timespec& modified);

// Renames `from` in the open folder `fromFolder` to `to` in `toFolder` and
// never replaces anything: EEXIST when `to` is taken. ENOTSUP where the file
// system cannot refuse by itself (exFAT through FUSE, some network file
// systems); the caller picks its own way then. AT_FDCWD is the current folder.
int renameNoReplace(int fromFolder, const std::string& from, int toFolder, const std::string& to);

// As renameNoReplace, but where the file system cannot refuse, it looks
// first and then renames: another process could still create `to` in
// between, which the strict call rules out.
int renameNoReplaceOrLook(int fromFolder, const std::string& from, int toFolder,
                          const std::string& to);

}  // namespace kd::fileio
