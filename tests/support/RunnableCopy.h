// A copy of one of the project's programs that another user may run: the
// build folder may lie below a folder only root may enter, and the programs
// load libKd.so from beside themselves first.
//
// A plain function; callable from any thread.
#pragma once

#include <string>

namespace kd::test {

// Copies `program` and the shared library into `folder` (which must exist),
// both readable and runnable by everyone. The copy's path, or "" when a
// copy failed.
std::string runnableCopy(const std::string& program, const std::string& folder);

}  // namespace kd::test
