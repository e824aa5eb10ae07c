/* Has a socket that is written to take ten bytes at a time, and none at all every other time, as
   one whose reader does not keep up. To be loaded before the C library. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdatomic.h>
#include <sys/stat.h>
#include <unistd.h>

ssize_t write(int fd, const void* bytes, size_t size) {
  static atomic_uint times;
  ssize_t (*real)(int, const void*, size_t) = dlsym(RTLD_NEXT, __func__);
  struct stat file;

  if (fstat(fd, &file) != 0 || !S_ISSOCK(file.st_mode))
    return real(fd, bytes, size);
  if (times++ % 2 == 0) {
    errno = EAGAIN;
    return -1;
  }
  return real(fd, bytes, size < 10 ? size : 10);
}
