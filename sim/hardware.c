/* What plain files lack to pass for hardware, loaded before the daemon on a simulated device:
   - a pin's value file tells of its changes, as the kernel's does, with POLLPRI and POLLERR;
   - a file in the place of an SPI node answers transfers; byte N of it is the level that the
   converter measures for command N;
   - the node of an IIO converter hands its events out, which come through the pipe EVENTS/<node>.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <linux/iio/events.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#define EVENTS "/run/iio-events"
#define MOST_PINS 256

static bool path_of(int fd, char* path) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, path, PATH_MAX - 1);
  if (length < 0)
    return false;
  path[length] = '\0';
  return true;
}

static bool is_plain_file(int fd, struct stat* status) {
  return fstat(fd, status) == 0 && S_ISREG(status->st_mode);
}

/* Pins. Only the main loop waits for them, so one thread is in here at a time. */

struct Pin {
  ino_t file;
  int changes; /* an inotify descriptor that tells of them */
};

static struct Pin pins[MOST_PINS];

/* The descriptor that tells of changes of the file behind fd; -1 where that is no pin. A pin that
   was closed and opened again is watched on. */
static int changes_of(int fd) {
  struct stat status;
  char path[PATH_MAX];
  if (!is_plain_file(fd, &status) || !path_of(fd, path))
    return -1;
  struct Pin* pin = pins;
  while (pin < pins + MOST_PINS && pin->file != 0 && pin->file != status.st_ino)
    pin++;
  if (pin == pins + MOST_PINS)
    return -1;
  if (pin->file == 0) {
    pin->changes = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_add_watch(pin->changes, path, IN_MODIFY) < 0)
      return -1;
    pin->file = status.st_ino;
  }
  return pin->changes;
}

static void forget_changes(int changes) {
  char events[4096];
  while (read(changes, events, sizeof events) > 0)
    ;
}

/* Whoever waits for a pin asks for POLLPRI, or for nothing, since POLLERR comes unasked. */
static bool may_be_pin(const struct pollfd* asked) {
  return asked->events == 0 || (asked->events & POLLPRI);
}

/* Takes over what a caller waits for on pins; says whether there is a pin at all. */
static bool replace_pins(struct pollfd* asked, struct pollfd* real, nfds_t count) {
  bool any = false;
  for (nfds_t i = 0; i < count; i++) {
    real[i] = asked[i];
    const int changes = may_be_pin(&asked[i]) ? changes_of(asked[i].fd) : -1;
    if (changes >= 0) {
      real[i].fd = changes;
      real[i].events = POLLIN;
      any = true;
    }
  }
  return any;
}

int poll(struct pollfd* asked, nfds_t count, int timeout) {
  int (*real_poll)(struct pollfd*, nfds_t, int) = dlsym(RTLD_NEXT, "poll");
  struct pollfd real[count > 0 ? count : 1];
  if (!replace_pins(asked, real, count))
    return real_poll(asked, count, timeout);
  const int found = real_poll(real, count, timeout);
  for (nfds_t i = 0; i < count; i++) {
    asked[i].revents = real[i].revents;
    if (real[i].fd != asked[i].fd && (real[i].revents & POLLIN)) {
      forget_changes(real[i].fd);
      asked[i].revents = (asked[i].events & POLLPRI) | POLLERR;
    }
  }
  return found;
}

/* Converters */

/* The level in the place of a 12-bit sample's upper eight, as the converters of the daemon send it.
 */
static int transfer(int fd, const struct spi_ioc_transfer* parts) {
  const uint8_t* sent = (const uint8_t*)(uintptr_t)parts[0].tx_buf;
  uint8_t* received = (uint8_t*)(uintptr_t)parts[1].rx_buf;
  uint8_t level = 0;
  if (pread(fd, &level, 1, sent[1]) < 0)
    return -1;
  received[0] = (uint8_t)(level << 4);
  received[1] = level >> 4;
  return (int)(parts[0].len + parts[1].len);
}

static int hand_out_events(int fd, int* events) {
  char path[PATH_MAX], pipe[PATH_MAX + sizeof EVENTS + 1];
  if (!path_of(fd, path))
    return -1;
  snprintf(pipe, sizeof pipe, EVENTS "/%s", basename(path));
  *events = open(pipe, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  return *events < 0 ? -1 : 0;
}

int ioctl(int fd, unsigned long request, ...) {
  int (*real_ioctl)(int, unsigned long, ...) = dlsym(RTLD_NEXT, "ioctl");
  struct stat status;
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request == IIO_GET_EVENT_FD_IOCTL)
    return hand_out_events(fd, argument);
  if (_IOC_TYPE(request) != SPI_IOC_MAGIC || !is_plain_file(fd, &status))
    return real_ioctl(fd, request, argument);
  /* Modes and speeds are all the same to a file. */
  return request == SPI_IOC_MESSAGE(2) ? transfer(fd, argument) : 0;
}
