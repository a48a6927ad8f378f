// File names: validateFilename turns any text into a name that stays one
// entry of its folder, and uniqueFilename, given the path of a taken name,
// answers a free name in the same folder.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/Path.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"

namespace {

std::string gFolder;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  gFolder = std::string(base) + "/kdfuzz-names." + std::to_string(::getpid());
  ::mkdir(gFolder.c_str(), 0700);
  std::atexit([] { (void)kd::files::removeTree(gFolder); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 300) return 0;
  std::string input(reinterpret_cast<const char*>(data), size);
  const std::string name = KdFileManager::validateFilename(input);
  if (name.find('/') != std::string::npos || name.find(':') != std::string::npos) std::abort();
  if (name == "." || name == "..") std::abort();
  if (name.size() > input.size()) std::abort();
  if (name.empty() || name.find('\0') != std::string::npos) return 0;

  const std::string path = gFolder + "/" + name;
  // A free name is answered as it is.
  if (KdFileManager::uniqueFilename(path) != path) std::abort();
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return 0;  // too long for the file system
  ::close(fd);
  const std::string other = KdFileManager::uniqueFilename(path);
  struct stat st {};
  const bool free = ::lstat(other.c_str(), &st) != 0;
  const bool sameFolder = kd::path::deletingLastComponent(other) == gFolder;
  ::unlink(path.c_str());
  if (other == path || !free || !sameFolder) std::abort();
  return 0;
}
