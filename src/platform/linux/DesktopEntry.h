// Reading desktop entries: the Exec value of the main group and its words.
//
// Stateless text functions; callable from any thread.
#pragma once

#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace kd {

// The value of the first "Exec=" line in the "[Desktop Entry]" group; none
// when the group has no such line.
std::optional<std::string> desktopEntryExec(std::istream& entry);

// The entry that opens files with `program` (named after its last path
// component); empty when the path cannot be carried by an entry's line (it
// holds a line end or a NUL).
std::string programDesktopEntry(const std::string& program);

// An Exec value split into words, with the field codes for files (%f %F %u
// %U) replaced by `file` and the others dropped; `file` is added as the last
// word when no code asked for it. No words when the value names no program. Inside quotes a
// backslash escapes the next character and "%%" is one percent sign, as programDesktopEntry writes
// them.
std::vector<std::string> execArguments(const std::string& exec, const std::string& file);

}  // namespace kd
