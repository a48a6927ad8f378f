#include "support/TempDir.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace kd::test {

TempDir::TempDir() {
  std::string templ = (fs::temp_directory_path() / "kdtest-XXXXXX").string();
  if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
  path_ = templ;
}

TempDir::~TempDir() {
  removeTree(path_);
}

std::string TempDir::operator/(std::string_view relative) const {
  return path_ + "/" + std::string(relative);
}

std::string TempDir::mkdir(std::string_view relative) const {
  std::string p = *this / relative;
  fs::create_directories(p);
  return p;
}

std::string TempDir::touch(std::string_view relative, std::string_view contents) const {
  std::string p = *this / relative;
  fs::create_directories(fs::path(p).parent_path());
  std::ofstream(p, std::ios::binary) << contents;
  return p;
}

void removeTree(const std::string& path) {
  std::error_code ec;
  // Make unreadable folders readable again so that they can be removed.
  for (auto it = fs::recursive_directory_iterator(
           path, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path, ec);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

uid_t ownerOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

std::set<std::string> namesIn(const std::string& folder, bool recursive) {
  std::set<std::string> out;
  std::error_code ec;
  if (!recursive) {
    for (const auto& entry : fs::directory_iterator(folder, ec))
      out.insert(entry.path().filename());
    return out;
  }
  for (auto it = fs::recursive_directory_iterator(folder, ec); !ec && it != fs::end(it);
       it.increment(ec))
    out.insert(it->path().lexically_relative(folder).string());
  return out;
}

std::string varyingBytes(std::size_t size, unsigned seed) {
  std::string s(size, '\0');
  std::uint32_t x = seed * 2654435761u + 12345;
  for (char& c : s) {
    x = x * 1103515245u + 12345;
    c = static_cast<char>(x >> 24);
  }
  return s;
}

}  // namespace kd::test
