/* Preloaded: no write at a place takes more than a few bytes, as signals and quotas may have it. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <sys/types.h>

ssize_t pwrite64(int fd, const void* text, size_t size, off_t place);

ssize_t pwrite(int fd, const void* text, size_t size, off_t place) {
  ssize_t (*whole)(int, const void*, size_t, off_t) =
      (ssize_t(*)(int, const void*, size_t, off_t))dlsym(RTLD_NEXT, "pwrite");
  return whole(fd, text, size < 7 ? size : 7, place);
}

ssize_t pwrite64(int fd, const void* text, size_t size, off_t place) {
  return pwrite(fd, text, size, place);
}
