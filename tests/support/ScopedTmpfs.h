// A tmpfs of our own at a path (made with its parents), unmounted (lazily,
// should a test leave it busy) when its owner goes. Needs root; mounted()
// says whether it worked. One owner, one thread.
#pragma once

#include <sys/mount.h>

#include <filesystem>
#include <string>

namespace kd::test {

class ScopedTmpfs {
 public:
  ScopedTmpfs(std::string point, const std::string& options, const char* source = "tmpfs")
      : point_(std::move(point)) {
    std::error_code ec;
    std::filesystem::create_directories(point_, ec);
    mounted_ = ::mount(source, point_.c_str(), "tmpfs", 0, options.c_str()) == 0;
  }
  ~ScopedTmpfs() {
    if (mounted_) ::umount2(point_.c_str(), MNT_DETACH);
  }
  ScopedTmpfs(const ScopedTmpfs&) = delete;
  ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

  bool mounted() const { return mounted_; }
  const std::string& path() const { return point_; }
  std::string operator/(const std::string& relative) const { return point_ + "/" + relative; }

 private:
  std::string point_;
  bool mounted_ = false;
};

}  // namespace kd::test
