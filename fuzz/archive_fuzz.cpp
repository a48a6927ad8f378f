// The archive extractor with any bytes as a zip or tar archive (gzip, bzip2,
// xz or zstd around it). Whatever the archive holds, nothing is written
// outside the destination folder: the folder holding the archive and the
// destination lists exactly the same before and after, and the destination
// exists only when the extraction reported success.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "files/FileOperations.h"
#include "files/KdFileManager.h"

namespace {

std::string gBox;     // /dev/shm/kdfuzz.<pid>: holds only "box"
std::string gParent;  // gBox/box: holds the archive and the destination

std::set<std::string> listing(const std::string& folder) {
  std::set<std::string> names;
  if (DIR* d = ::opendir(folder.c_str())) {
    while (const dirent* e = ::readdir(d))
      if (std::string_view(e->d_name) != "." && std::string_view(e->d_name) != "..")
        names.insert(e->d_name);
    ::closedir(d);
  }
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // In memory when the machine has /dev/shm: the extractor syncs every file.
  const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  gBox = std::string(base) + "/kdfuzz." + std::to_string(::getpid());
  gParent = gBox + "/box";
  ::mkdir(gBox.c_str(), 0700);
  ::mkdir(gParent.c_str(), 0700);
  // The extractor logs its refusals. No log is opened here (a root run's log
  // would be the console user's): the lines go to standard output, which the
  // fuzz runs close (-close_fd_mask=1).
  std::atexit([] { (void)kd::files::removeTree(gBox); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 256 * 1024) return 0;
  const std::string archive = gParent + "/input", destination = gParent + "/out";
  {
    const int fd = ::open(archive.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
    ::close(fd);
  }
  const std::set<std::string> outer = listing(gBox), before = listing(gParent);
  const bool ok = KdFileManager::decompressFile(archive, destination);
  std::set<std::string> after = listing(gParent);
  if (listing(gBox) != outer) std::abort();  // something climbed out of the box
  struct stat st {};
  const bool made = ::lstat(destination.c_str(), &st) == 0;
  if (made != ok || (made && !S_ISDIR(st.st_mode))) std::abort();
  after.erase("out");
  if (after != before) std::abort();  // a partial folder left behind, or a stray entry
  (void)kd::files::removeTree(destination);
  return 0;
}
