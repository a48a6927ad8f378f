// A unique temporary folder, removed with everything in it when the owner goes
// away. One owner; not shared between threads while being destroyed.
#pragma once

#include <sys/types.h>

#include <set>
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
// Whether anything is at the path (a dangling link counts; links not followed).
bool exists(const std::string& path);
// The owner of what is at the path (links not followed); -1 when nothing is.
uid_t ownerOf(const std::string& path);
// The names in a folder; with `recursive`, every path below it relative to it
// (links not followed). Empty when it cannot be listed.
std::set<std::string> namesIn(const std::string& folder, bool recursive = false);
// `size` bytes that differ from chunk to chunk, so that a chunk read or
// written twice, skipped or misplaced changes a digest.
std::string varyingBytes(std::size_t size, unsigned seed = 1);

}  // namespace kd::test
