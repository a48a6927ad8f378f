#include "common/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "common/Path.h"
#include "common/UniqueFd.h"

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
}  // namespace

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* error) {
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
  // Keep the permissions of the file being replaced.
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) ::fchmod(fd.get(), st.st_mode & 07777);
  if (!writeAll(fd.get(), bytes) || ::fsync(fd.get()) != 0) {
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
  if (dirFd) ::fsync(dirFd.get());
  return true;
}

std::optional<std::string> readWholeFile(const std::string& path, std::size_t maxBytes) {
  UniqueFd fd(retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!fd) return std::nullopt;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  if (static_cast<std::size_t>(st.st_size) > maxBytes) return std::nullopt;
  std::string out;
  char buf[65536];
  for (;;) {
    ssize_t n = retryOnEintr([&] { return ::read(fd.get(), buf, sizeof buf); });
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    out.append(buf, static_cast<std::size_t>(n));
    if (out.size() > maxBytes) return std::nullopt;
  }
  return out;
}

}  // namespace kd
