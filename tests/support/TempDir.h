// A unique temporary folder, removed with everything in it when the owner goes
// away. One owner; not shared between threads while being destroyed.
#pragma once

#include <string>
#include <string_view>

namespace kd::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + relative.
  std::string operator/(std::string_view relative) const;
  // Creates a folder (with intermediate ones) below the temporary folder.
  std::string mkdir(std::string_view relative) const;
  // Creates a file (and its folders) below the temporary folder.
  std::string touch(std::string_view relative, std::string_view contents = {}) const;

 private:
  std::string path_;
};

// Removes a tree (no links followed); missing counts as done.
void removeTree(const std::string& path);
// Reads a whole file; "" when it cannot.
std::string readFile(const std::string& path);

}  // namespace kd::test
