// The agent's messages on standard error. Under systemd, standard error is the
// journal: each line then starts with its priority ("<3>" for errors), which
// the journal takes as the line's priority; in a terminal the lines are plain.
//
// Stateless apart from a test of standard error made once; any thread.
#pragma once

namespace kd::agent {

enum class Priority { Error = 3, Warning = 4, Notice = 5, Info = 6 };

// Whether standard error is the journal's stream ($JOURNAL_STREAM names its
// device and inode).
bool stderrIsJournal();

// One line "ferrimo-mount-agent: <message>" on standard error.
[[gnu::format(printf, 2, 3)]] void report(Priority priority, const char* format, ...);

}  // namespace kd::agent
