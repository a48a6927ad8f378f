#include "platform/linux/ProcText.h"

#include <fcntl.h>

#include <cstdlib>

#include "common/Path.h"

namespace kd {

bool fdinfoOpenForWriting(std::string_view fdinfo) {
  std::size_t start = 0;
  while (start < fdinfo.size()) {
    std::size_t end = fdinfo.find('\n', start);
    if (end == std::string_view::npos) end = fdinfo.size();
    const std::string line(fdinfo.substr(start, end - start));
    if (line.rfind("flags:", 0) == 0) {
      const unsigned long flags = std::strtoul(line.c_str() + 6, nullptr, 8);
      const int mode = static_cast<int>(flags & O_ACCMODE);
      return mode == O_WRONLY || mode == O_RDWR;
    }
    start = end + 1;
  }
  return false;
}

std::string executableNameOfLink(std::string_view target) {
  std::string exe(target);
  if (exe.size() > 10 && exe.compare(exe.size() - 10, 10, " (deleted)") == 0)
    exe.resize(exe.size() - 10);
  return path::lastComponent(exe);
}

}  // namespace kd
