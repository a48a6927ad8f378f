/* Test-only I/O faults, preloaded into a program under test (LD_PRELOAD).
 * A descriptor open on the file named by KD_FAULT_PATH fails the call named
 * by KD_FAULT_CALL (read when unset) once KD_FAULT_AFTER bytes (0 when
 * unset) lie before the offset it reads at:
 *   KD_FAULT_CALL=read (the file's own offset)
 *     KD_FAULT=eio     the read fails with EIO, as a damaged card's does;
 *     KD_FAULT=shrink  the file is cut to the bytes read so far, as when
 *                      another program truncates it, and the read goes on;
 *     KD_FAULT=unlink  the file's name is removed, as when another program
 *                      deletes it, and the read goes on.
 *   KD_FAULT_CALL=pread (the offset asked for), a read-back:
 *     KD_FAULT=eio     the read fails with EIO;
 *     KD_FAULT=flip    the read succeeds but its first byte comes back
 *                      changed, as from a device that returns other data.
 *   KD_FAULT_CALL=fdatasync, KD_FAULT=eio: the flush fails with EIO.
 *   KD_FAULT_CALL=close, KD_FAULT=eio: the descriptor is closed, but the
 *                      close reports EIO, as a network file system's does.
 * Other calls, descriptors and files work as usual. Holds no state of its
 * own beyond the environment; callable from any thread. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int is(const char* variable, const char* value, const char* unset) {
  const char* v = getenv(variable);
  return strcmp(v && *v ? v : unset, value) == 0;
}

/* Whether `call` on `fd` at `offset` is to fail; -1 for `offset` asks for
 * the descriptor's own. */
static int fault_applies(const char* call, int fd, off_t* offset) {
  const char* path = getenv("KD_FAULT_PATH");
  if (!path || !*path || !is("KD_FAULT_CALL", call, "read")) return 0;
  struct stat fd_st, path_st;
  if (fstat(fd, &fd_st) != 0 || stat(path, &path_st) != 0) return 0;
  if (fd_st.st_dev != path_st.st_dev || fd_st.st_ino != path_st.st_ino) return 0;
  const char* after = getenv("KD_FAULT_AFTER");
  if (*offset < 0) *offset = lseek(fd, 0, SEEK_CUR);
  return *offset >= (after ? strtoll(after, NULL, 10) : 0);
}

typedef ssize_t (*read_fn)(int, void*, size_t);
typedef ssize_t (*pread_fn)(int, void*, size_t, off_t);
typedef int (*fd_fn)(int);

/* The next definition of `name`: the C library's, or a sanitizer's. */
#define REAL(name, type)                              \
  static type real_##name;                            \
  if (!real_##name) {                                 \
    void* found = dlsym(RTLD_NEXT, #name);            \
    memcpy(&real_##name, &found, sizeof real_##name); \
  }

ssize_t read(int fd, void* buf, size_t count) {
  REAL(read, read_fn);
  off_t offset = -1;
  if (fault_applies("read", fd, &offset)) {
    if (is("KD_FAULT", "eio", "")) {
      errno = EIO;
      return -1;
    }
    if (is("KD_FAULT", "shrink", "")) truncate(getenv("KD_FAULT_PATH"), offset);
    if (is("KD_FAULT", "unlink", "")) unlink(getenv("KD_FAULT_PATH"));
  }
  return real_read(fd, buf, count);
}

ssize_t pread(int fd, void* buf, size_t count, off_t offset) {
  REAL(pread, pread_fn);
  off_t at = offset;
  if (!fault_applies("pread", fd, &at)) return real_pread(fd, buf, count, offset);
  if (is("KD_FAULT", "eio", "")) {
    errno = EIO;
    return -1;
  }
  const ssize_t n = real_pread(fd, buf, count, offset);
  if (n > 0 && is("KD_FAULT", "flip", "")) ((unsigned char*)buf)[0] ^= 0x5a;
  return n;
}
ssize_t pread64(int fd, void* buf, size_t count, off_t offset) {
  return pread(fd, buf, count, offset);
}

int fdatasync(int fd) {
  REAL(fdatasync, fd_fn);
  if (fault_applies("fdatasync", fd, &(off_t){0}) && is("KD_FAULT", "eio", "")) {
    errno = EIO;
    return -1;
  }
  return real_fdatasync(fd);
}

int close(int fd) {
  REAL(close, fd_fn);
  const int fails = fault_applies("close", fd, &(off_t){0}) && is("KD_FAULT", "eio", "");
  const int result = real_close(fd);
  if (!fails || result != 0) return result;
  errno = EIO;
  return -1;
}
