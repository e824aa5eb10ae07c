#include "support/fake-ioctl.h"

#include <cerrno>
#include <cstdarg>

std::function<int(int fd, unsigned long request, void* argument)> fake_ioctl;

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (fake_ioctl) {
    return fake_ioctl(fd, request, argument);
  }
  errno = ENOTTY;
  return -1;
}
