// The verified-copy engine's parts that are not the library's interface.
//
// Plain functions and values; see each for its threads.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kd::copy {

// For tests: called on a destination's stage after each of its writes and
// before that stretch is read back, with the destination's descriptor and the
// stretch; what it does to the file is what the read-back finds. Set it
// before a copy and clear it (nullptr) after, never while one runs.
using AfterWriteHook = void (*)(int fd, std::uint64_t offset, std::size_t length);
void setAfterWriteHookForTesting(AfterWriteHook hook);

}  // namespace kd::copy
