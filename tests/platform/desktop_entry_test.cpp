// Desktop entries as text: what we write for a program reads back as that
// program whatever its path holds, and Exec lines written by others split into
// the words a desktop would run.
#include <gtest/gtest.h>

#include <sstream>

#include "platform/linux/DesktopEntry.h"

namespace kd {
namespace {

using Words = std::vector<std::string>;

Words wordsOfEntry(const std::string& entry, const std::string& file) {
  std::istringstream in(entry);
  const std::optional<std::string> exec = desktopEntryExec(in);
  return exec ? execArguments(*exec, file) : Words{"(no Exec)"};
}

TEST(DesktopEntry, AProgramWrittenReadsBackAsItself) {
  const std::string file = "/media/bob/CARD/A001.MOV";
  // A percent sign read back doubled once made "100%%" of "100%".
  for (const std::string program :
       {"/opt/Ferrimo/Ferrimo", "/opt/100%/run", "/opt/a%f/%%/run", "/opt/My \"App\"/run",
        "/opt/back\\slash/run", "/opt/$HOME/`x`/run", "/opt/with space/and\ttab", "/opt/%"}) {
    SCOPED_TRACE(program);
    EXPECT_EQ(wordsOfEntry(programDesktopEntry(program), file), (Words{program, file}));
  }
  // A line end would end the Exec line early: such a path gets no entry.
  EXPECT_EQ(programDesktopEntry("/opt/evil\nExec=/bin/sh"), "");
  EXPECT_EQ(programDesktopEntry(std::string("/opt/a\0b", 8)), "");
}

TEST(DesktopEntry, ExecLinesOfOthers) {
  const std::string f = "/x/y.crash";
  const struct {
    const char* entry;
    Words words;
  } cases[] = {
      {"[Desktop Entry]\nExec=app %f\n", {"app", f}},
      {"[Desktop Entry]\nExec=app --open=%u --now\n", {"app", "--open=" + f, "--now"}},
      {"[Desktop Entry]\nExec=app\n", {"app", f}},  // no code: the file comes last
      {"[Desktop Entry]\nExec=app %i %c %k 50%%\n", {"app", "50%", f}},  // no empty words
      {"[Desktop Entry]\nExec=\"my app\" \"a \\\"q\\\" 100%%\" %F\n",
       {"my app", "a \"q\" 100%", f}},
      {"[Other]\nExec=wrong\n[Desktop Entry]\nExec=right\n", {"right", f}},
      {"[Desktop Entry]\nExec=first\n[Desktop Action x]\nExec=action\n", {"first", f}},
      {"[Desktop Entry]\nName=x\n", {"(no Exec)"}},
      {"[Desktop Entry]\nExec=\n", {}},  // never the file run as the program
      {"[Desktop Entry]\nExec= %i \n", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.entry);
    EXPECT_EQ(wordsOfEntry(c.entry, f), c.words);
  }
}

}  // namespace
}  // namespace kd
