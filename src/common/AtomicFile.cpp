#include "common/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>

#include "common/Path.h"
#include "common/UniqueFd.h"
#include "platform/FileIO.h"

namespace kd {

namespace {
Error failed(const char* what, const std::string& path) {
  return Error::fromErrno(std::string(what) + " " + path);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = retryOnEintr([&] { return ::write(fd, bytes.data(), bytes.size()); });
    if (n < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool writeAndSync(int fd, std::string_view bytes) {
  if (!writeAll(fd, bytes)) return false;
  const int e = fileio::flushToDevice(fd);
  errno = e;
  return e == 0;
}
}  // namespace

Result<void> writeFileAtomically(const std::string& path, std::string_view bytes,
                                 const std::optional<FileOwner>& owner) {
  std::string dir = path::deletingLastComponent(path);
  if (dir.empty()) dir.push_back('.');  // (not `= "."`: a false -Wrestrict in GCC 12)
  std::string name = path::lastComponent(path);
  thread_local std::mt19937_64 rng{std::random_device{}()};
  std::string tmpName = ".";
  tmpName.append(name).append(".tmp").append(std::to_string(rng() % 1000000007));
  std::string tmp = path::append(dir, tmpName);

  UniqueFd fd(retryOnEintr(
      [&] { return ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644); }));
  if (!fd) return failed("cannot create", tmp);
  auto dropTmp = [&](Error error) {
    ::unlink(tmp.c_str());
    return error;
  };
  // Keep the permissions of the file being replaced (not of a link's target).
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    ::fchmod(fd.get(), st.st_mode & 07777);
  if (owner && ::fchown(fd.get(), owner->uid, owner->gid) != 0)
    return dropTmp(failed("cannot give to its owner", tmp));
  if (!writeAndSync(fd.get(), bytes)) return dropTmp(failed("cannot write", tmp));
  fd.reset();
  if (::rename(tmp.c_str(), path.c_str()) != 0) return dropTmp(failed("cannot replace", path));
  UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dirFd) fileio::flushFolderToDevice(dirFd.get());
  return success();
}

namespace {

bool unsupported(int e) {
  return e == EINVAL || e == ENOSYS || e == ENOTSUP || e == EOPNOTSUPP || e == EPERM;
}
}  // namespace

Result<void> writeFileAtomicallyAt(int dirFd, const std::string& name, std::string_view bytes,
                                   AtomicReplace how, mode_t mode) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
    return Error::described("not a file name: " + name);
  thread_local std::mt19937_64 rng{std::random_device{}()};
  const std::string tmp = "." + name + ".tmp" + std::to_string(rng() % 1000000007);
  UniqueFd fd(retryOnEintr([&] {
    return ::openat(dirFd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  }));
  if (!fd) return failed("cannot create", tmp);
  // The error is taken before the temporary file goes, so its errno is kept.
  auto dropTmp = [&](Error error) {
    ::unlinkat(dirFd, tmp.c_str(), 0);
    return error;
  };
  struct stat st {};
  if (how == AtomicReplace::Replace &&
      ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
    ::fchmod(fd.get(), st.st_mode & 07777);
  if (!writeAndSync(fd.get(), bytes)) return dropTmp(failed("cannot write", tmp));
  fd.reset();
  if (how == AtomicReplace::Replace) {
    if (::renameat(dirFd, tmp.c_str(), dirFd, name.c_str()) != 0)
      return dropTmp(failed("cannot replace", name));
  } else if (const int e = fileio::renameNoReplace(dirFd, tmp, dirFd, name); e != 0) {
    if (!unsupported(e)) return dropTmp(Error{e, "cannot create " + name});
    if (::linkat(dirFd, tmp.c_str(), dirFd, name.c_str(), 0) == 0) {
      ::unlinkat(dirFd, tmp.c_str(), 0);
    } else {
      if (!unsupported(errno)) return dropTmp(failed("cannot create", name));
      ::unlinkat(dirFd, tmp.c_str(), 0);
      UniqueFd out(retryOnEintr([&] {
        return ::openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        mode);
      }));
      if (!out) return failed("cannot create", name);
      if (!writeAndSync(out.get(), bytes)) {
        Error error = failed("cannot write", name);
        ::unlinkat(dirFd, name.c_str(), 0);  // ours: created exclusively just now
        return error;
      }
    }
  }
  fileio::flushFolderToDevice(dirFd);
  return success();
}

Result<std::string, ReadError> readRegularFile(const std::string& path, std::size_t maxBytes,
                                               bool followLinks) {
  return readRegularFileAt(AT_FDCWD, path, maxBytes, followLinks);
}

Result<std::string, ReadError> readRegularFileAt(int dirFd, const std::string& path,
                                                 std::size_t maxBytes, bool followLinks) {
  auto fail = [](ReadFailure kind, Error error) { return ReadError{kind, std::move(error)}; };
  auto tooLarge = [&] {
    return fail(ReadFailure::TooLarge,
                Error::described("larger than " + std::to_string(maxBytes) + " bytes"));
  };
  int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (followLinks ? 0 : O_NOFOLLOW);
  UniqueFd fd(retryOnEintr([&] { return ::openat(dirFd, path.c_str(), flags); }));
  if (!fd) {
    const Error e = Error::fromErrno();
    if (e.code == ENOENT || e.code == ENOTDIR) return fail(ReadFailure::Missing, e);
    if (e.code == ELOOP || e.code == ENXIO) return fail(ReadFailure::NotRegular, e);
    return fail(ReadFailure::Unreadable, e);
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return fail(ReadFailure::Unreadable, Error::fromErrno());
  if (!S_ISREG(st.st_mode))
    return fail(ReadFailure::NotRegular, Error::described("not a regular file"));
  if (static_cast<std::uint64_t>(st.st_size) > maxBytes) return tooLarge();
  // A regular file never blocks; clear the flag so reads behave normally.
  ::fcntl(fd.get(), F_SETFL, O_RDONLY);
  std::string out;
  out.reserve(static_cast<std::size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    ssize_t n = retryOnEintr([&] { return ::read(fd.get(), buf, sizeof buf); });
    if (n < 0) return fail(ReadFailure::Unreadable, Error::fromErrno());
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > maxBytes) return tooLarge();
  }
  return out;
}

}  // namespace kd
