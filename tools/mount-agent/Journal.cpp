#include "Journal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/UniqueFd.h"

namespace kd::agent {

bool stderrIsJournal() {
  static const bool journal = [] {
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream) return false;
    unsigned long long dev = 0, ino = 0;
    if (std::sscanf(stream, "%llu:%llu", &dev, &ino) != 2) return false;
    struct stat st {};
    return ::fstat(STDERR_FILENO, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
  }();
  return journal;
}

void report(Priority priority, const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::string line;
  if (stderrIsJournal()) line = "<" + std::to_string(static_cast<int>(priority)) + ">";
  line += "ferrimo-mount-agent: ";
  line += text;
  line += '\n';
  // One write per line, so that lines of the agent and of the helpers it
  // starts (which share the stream) never interleave.
  const char* p = line.data();
  std::size_t left = line.size();
  while (left > 0) {
    ssize_t n = retryOnEintr([&] { return ::write(STDERR_FILENO, p, left); });
    if (n <= 0) break;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

}  // namespace kd::agent
