// A mount of the test's own for root tests: tmpfs, or an image file made
// with mkfs and mounted through a loop device (exFAT cards through
// exfat-fuse, since the kernel here has no exFAT driver).
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {

inline int runTool(const std::vector<std::string>& args) {
  return KdTaskEx::terminationCodeFromTask(args.at(0), {args.begin() + 1, args.end()});
}

// One mount of our own below a temporary folder: tmpfs, or an image file
// made with `mkfs` and mounted through a loop device (by `mount -o loop`, or
// with a helper program such as exfat-fuse). Unmounted, detached and removed
// when the owner goes away, whatever happened in between.
class ScopedMount {
 public:
  static constexpr std::uint64_t kImageBytes = 16u << 20;

  // tmpfs at <tmp>/<name>, 4 MiB unless the options say otherwise.
  explicit ScopedMount(const std::string& name, const std::string& options = "size=4m") {
    ::chmod(tmp_.path().c_str(), 0755);
    point_ = tmp_.mkdir(name);
    if (::mount("tmpfs", point_.c_str(), "tmpfs", 0, options.c_str()) != 0)
      error_ = std::string("mount tmpfs: ") + std::strerror(errno);
    else
      mounted_ = true;
  }

  // An image formatted by `mkfs` (its arguments end with the image path) and
  // mounted by `mounter` ("" for the kernel's own driver).
  ScopedMount(const std::string& name, std::vector<std::string> mkfs, const std::string& mounter) {
    ::chmod(tmp_.path().c_str(), 0755);  // ordinary users may pass
    point_ = tmp_.mkdir(name);
    image_ = tmp_ / "card.img";
    {
      int fd = ::open(image_.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
      if (fd < 0 || ::ftruncate(fd, kImageBytes) != 0) error_ = "cannot make the image";
      if (fd >= 0) ::close(fd);
    }
    if (!error_.empty()) return;
    if (::access(mkfs[0].c_str(), X_OK) != 0) {
      error_ = mkfs[0] + " is missing";
      return;
    }
    mkfs.push_back(image_);
    if (runTool(mkfs) != 0) {
      error_ = mkfs[0] + " failed";
      return;
    }
    loop_ = KdTaskEx::stringFromTask("/usr/sbin/losetup", {"-f", "--show", image_}, 10.0);
    while (!loop_.empty() && (loop_.back() == '\n' || loop_.back() == '\r')) loop_.pop_back();
    if (loop_.rfind("/dev/loop", 0) != 0) {
      error_ = "no loop device";
      loop_.clear();
      return;
    }
    int rc = mounter.empty() ? runTool({"/usr/bin/mount", loop_, point_})
                             : runTool({mounter, loop_, point_});
    if (rc != 0) {
      error_ = "mounting " + loop_ + " failed";
      return;
    }
    mounted_ = true;
  }

  ~ScopedMount() {
    if (mounted_ && ::umount(point_.c_str()) != 0) ::umount2(point_.c_str(), MNT_DETACH);
    if (!loop_.empty()) runTool({"/usr/sbin/losetup", "-d", loop_});
  }

  bool ok() const { return mounted_; }
  const std::string& error() const { return error_; }
  const std::string& point() const { return point_; }
  const std::string& device() const { return loop_; }

 private:
  TempDir tmp_;
  std::string point_, image_, loop_, error_;
  bool mounted_ = false;
};

}  // namespace kd::test
