/* Test-only read() faults, preloaded into a program under test
 * (LD_PRELOAD). A descriptor open on the file named by KD_FAULT_PATH fails
 * its reads once KD_FAULT_AFTER bytes (0 when unset) have been read from it:
 *   KD_FAULT=eio     the read fails with EIO, as a damaged card's does;
 *   KD_FAULT=shrink  the file is cut to the bytes read so far, as when
 *                    another program truncates it, and the read goes on;
 *   KD_FAULT=unlink  the file's name is removed, as when another program
 *                    deletes it, and the read goes on.
 * Other descriptors and files read as usual. Holds no state of its own
 * beyond the environment; callable from any thread. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int fault_applies(int fd, off_t* offset) {
  const char* path = getenv("KD_FAULT_PATH");
  if (!path || !*path) return 0;
  struct stat fd_st, path_st;
  if (fstat(fd, &fd_st) != 0 || stat(path, &path_st) != 0) return 0;
  if (fd_st.st_dev != path_st.st_dev || fd_st.st_ino != path_st.st_ino) return 0;
  const char* after = getenv("KD_FAULT_AFTER");
  *offset = lseek(fd, 0, SEEK_CUR);
  return *offset >= (after ? strtoll(after, NULL, 10) : 0);
}

ssize_t read(int fd, void* buf, size_t count) {
  static ssize_t (*real_read)(int, void*, size_t);
  if (!real_read) real_read = (ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read");
  off_t offset = 0;
  if (fault_applies(fd, &offset)) {
    const char* kind = getenv("KD_FAULT");
    if (kind && strcmp(kind, "eio") == 0) {
      errno = EIO;
      return -1;
    }
    if (kind && strcmp(kind, "shrink") == 0) truncate(getenv("KD_FAULT_PATH"), offset);
    if (kind && strcmp(kind, "unlink") == 0) unlink(getenv("KD_FAULT_PATH"));
  }
  return real_read(fd, buf, count);
}
