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
std::string errnoText(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
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

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* error,
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
  if (!fd) {
    if (error) *error = errnoText("cannot create", tmp);
    return false;
  }
  // Keep the permissions of the file being replaced (not of a link's target).
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
    ::fchmod(fd.get(), st.st_mode & 07777);
  if (owner && ::fchown(fd.get(), owner->uid, owner->gid) != 0) {
    if (error) *error = errnoText("cannot give to its owner", tmp);
    ::unlink(tmp.c_str());
    return false;
  }
  if (!writeAndSync(fd.get(), bytes)) {
    if (error) *error = errnoText("cannot write", tmp);
    ::unlink(tmp.c_str());
    return false;
  }
  fd.reset();
  if (::rename(tmp.c_str(), path.c_str()) != 0) {
    if (error) *error = errnoText("cannot replace", path);
    ::unlink(tmp.c_str());
    return false;
  }
  UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dirFd) fileio::flushFolderToDevice(dirFd.get());
  return true;
}

namespace {

bool unsupported(int e) {
  return e == EINVAL || e == ENOSYS || e == ENOTSUP || e == EOPNOTSUPP || e == EPERM;
}
}  // namespace

bool writeFileAtomicallyAt(int dirFd, const std::string& name, std::string_view bytes,
                           AtomicReplace how, mode_t mode, std::string* error) {
  auto failWith = [&](const char* what, const std::string& which) {
    if (error) *error = errnoText(what, which);
    return false;
  };
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
    if (error) *error = "not a file name: " + name;
    return false;
  }
  thread_local std::mt19937_64 rng{std::random_device{}()};
  const std::string tmp = "." + name + ".tmp" + std::to_string(rng() % 1000000007);
  UniqueFd fd(retryOnEintr([&] {
    return ::openat(dirFd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  }));
  if (!fd) return failWith("cannot create", tmp);
  struct stat st {};
  if (how == AtomicReplace::Replace &&
      ::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode))
    ::fchmod(fd.get(), st.st_mode & 07777);
  if (!writeAndSync(fd.get(), bytes)) {
    const int e = errno;
    ::unlinkat(dirFd, tmp.c_str(), 0);
    errno = e;
    return failWith("cannot write", tmp);
  }
  fd.reset();
  auto dropTmp = [&] {
    const int e = errno;
    ::unlinkat(dirFd, tmp.c_str(), 0);
    errno = e;
  };
  if (how == AtomicReplace::Replace) {
    if (::renameat(dirFd, tmp.c_str(), dirFd, name.c_str()) != 0) {
      dropTmp();
      return failWith("cannot replace", name);
    }
  } else if (const int e = fileio::renameNoReplace(dirFd, tmp, dirFd, name); e != 0) {
    errno = e;
    if (!unsupported(e)) {
      dropTmp();
      return failWith("cannot create", name);
    }
    if (::linkat(dirFd, tmp.c_str(), dirFd, name.c_str(), 0) == 0) {
      ::unlinkat(dirFd, tmp.c_str(), 0);
    } else {
      if (!unsupported(errno)) {
        dropTmp();
        return failWith("cannot create", name);
      }
      ::unlinkat(dirFd, tmp.c_str(), 0);
      UniqueFd out(retryOnEintr([&] {
        return ::openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        mode);
      }));
      if (!out) return failWith("cannot create", name);
      if (!writeAndSync(out.get(), bytes)) {
        const int e = errno;
        ::unlinkat(dirFd, name.c_str(), 0);  // ours: created exclusively just now
        errno = e;
        return failWith("cannot write", name);
      }
    }
  }
  fileio::flushFolderToDevice(dirFd);
  return true;
}

FileReadResult readRegularFile(const std::string& path, std::size_t maxBytes, bool followLinks) {
  return readRegularFileAt(AT_FDCWD, path, maxBytes, followLinks);
}

FileReadResult readRegularFileAt(int dirFd, const std::string& path, std::size_t maxBytes,
                                 bool followLinks) {
  FileReadResult result;
  auto fail = [&](ReadFailure why, std::string reason) {
    result.failure = why;
    result.reason = std::move(reason);
    return std::move(result);
  };
  int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | (followLinks ? 0 : O_NOFOLLOW);
  UniqueFd fd(retryOnEintr([&] { return ::openat(dirFd, path.c_str(), flags); }));
  if (!fd) {
    int e = errno;
    if (e == ENOENT || e == ENOTDIR) return fail(ReadFailure::Missing, std::strerror(e));
    if (e == ELOOP || e == ENXIO) return fail(ReadFailure::NotRegular, std::strerror(e));
    return fail(ReadFailure::Unreadable, std::strerror(e));
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return fail(ReadFailure::Unreadable, std::strerror(errno));
  if (!S_ISREG(st.st_mode)) return fail(ReadFailure::NotRegular, "not a regular file");
  if (static_cast<std::uint64_t>(st.st_size) > maxBytes)
    return fail(ReadFailure::TooLarge, "larger than " + std::to_string(maxBytes) + " bytes");
  // A regular file never blocks; clear the flag so reads behave normally.
  ::fcntl(fd.get(), F_SETFL, O_RDONLY);
  std::string out;
  out.reserve(static_cast<std::size_t>(st.st_size));
  char buf[65536];
  for (;;) {
    ssize_t n = retryOnEintr([&] { return ::read(fd.get(), buf, sizeof buf); });
    if (n < 0) return fail(ReadFailure::Unreadable, std::strerror(errno));
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > maxBytes)
      return fail(ReadFailure::TooLarge, "larger than " + std::to_string(maxBytes) + " bytes");
  }
  result.bytes = std::move(out);
  return result;
}

std::optional<std::string> readWholeFile(const std::string& path, std::size_t maxBytes) {
  return readRegularFile(path, maxBytes).bytes;
}

}  // namespace kd
