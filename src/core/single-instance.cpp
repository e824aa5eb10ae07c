#include "core/single-instance.h"

#include "platform/log.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace {

constexpr gint64 patience_us = 3'000'000;
constexpr gulong pause_us = 20'000;

// Whether the lock could be taken in time; `errno` is EWOULDBLOCK when somebody else has it. Never
// waits inside the kernel, from where only a signal would bring it back.
bool lock_in_time(int fd) {
  const gint64 deadline = g_get_monotonic_time() + patience_us;
  while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || g_get_monotonic_time() >= deadline) {
      return false;
    }
    g_usleep(pause_us);
  }
  return true;
}

} // namespace

// No program that the daemon might ever start inherits the descriptor.
std::optional<UniqueFd> claim_settings_folder(const char* folder) {
  UniqueFd locked(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!locked && errno == ENOENT) {
    return locked;
  }
  if (locked && lock_in_time(locked.get())) {
    return locked;
  }
  if (locked && errno == EWOULDBLOCK) {
    g_warning("%swexd is already running: another process has locked %s", log_prefix, folder);
    return std::nullopt;
  }
  g_warning("%sCould not lock %s: %s", log_prefix, folder, g_strerror(errno));
  return locked;
}
