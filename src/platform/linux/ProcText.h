// Reading the texts of /proc: descriptor flags and executable links.
//
// Stateless text functions; callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace kd {

// Whether the "flags:" line of a /proc/<pid>/fdinfo/<fd> text says the
// descriptor was opened for writing (alone or with reading); false when the
// text has no such line.
bool fdinfoOpenForWriting(std::string_view fdinfo);

// The program name in the target of a /proc/<pid>/exe link: its last path
// component, without the " (deleted)" the kernel adds for a removed file.
std::string executableNameOfLink(std::string_view target);

}  // namespace kd
