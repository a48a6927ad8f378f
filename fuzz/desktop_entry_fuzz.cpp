// Desktop entries: any entry text yields an Exec value or none, and its words
// (when it names a program) always carry the file; an entry written for any program path reads back
// as exactly that program and the file.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/linux/DesktopEntry.h"

namespace {

const std::string kFile = "/media/user/CARD/A \"clip\" 100%f $HOME\\x.mov";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 4096) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);

  // The input as an entry someone else wrote.
  std::istringstream entry(input);
  if (const std::optional<std::string> exec = kd::desktopEntryExec(entry)) {
    const std::vector<std::string> words = kd::execArguments(*exec, kFile);
    bool carried = words.empty();  // no program: nothing is run
    for (const std::string& w : words) carried = carried || w.find(kFile) != std::string::npos;
    if (!carried) std::abort();
  }

  // The input as the path of a program we write an entry for.
  const std::string text = kd::programDesktopEntry(input);
  if (text.empty()) {
    if (input.find('\n') == std::string::npos && input.find('\0') == std::string::npos)
      std::abort();
    return 0;
  }
  std::istringstream written(text);
  const std::optional<std::string> exec = kd::desktopEntryExec(written);
  if (!exec) std::abort();
  const std::vector<std::string> words = kd::execArguments(*exec, kFile);
  if (words.size() != 2 || words[0] != input || words[1] != kFile) std::abort();
  return 0;
}
