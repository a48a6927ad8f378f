// KD_EXPORT marks what the shared library libKd exports: the public classes
// and functions. The library is built with hidden visibility, so everything
// not marked stays inside it; programs that link the subsystem libraries
// statically are not affected.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define KD_EXPORT __attribute__((visibility("default")))
#else
#define KD_EXPORT
#endif
