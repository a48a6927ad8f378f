#include "support/RunnableCopy.h"

#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace kd::test {

std::string runnableCopy(const std::string& program, const std::string& folder) {
  namespace fs = std::filesystem;
  const fs::path library = fs::canonical(KD_SHARED_LIBRARY_PATH);
  const std::string copy = (fs::path(folder) / fs::path(program).filename()).string();
  std::error_code ec;
  fs::copy_file(program, copy, fs::copy_options::overwrite_existing, ec);
  if (ec || ::chmod(copy.c_str(), 0755) != 0) return "";
  // Under the name the programs ask for (libKd.so.1).
  const std::string name = (fs::path(folder) / KD_SHARED_LIBRARY_SONAME).string();
  fs::copy_file(library, name, fs::copy_options::overwrite_existing, ec);
  if (ec || ::chmod(name.c_str(), 0755) != 0) return "";
  return copy;
}

}  // namespace kd::test
