#include "core/single-instance.h"

#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace {

constexpr gint64 patience_us = 3'000'000;
constexpr gulong pause_us = 20'000;

/// Open for as long as the process lives. No program that it might ever start inherits it.
UniqueFd locked_folder;

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

bool claim_settings_folder(const char* folder) {
  locked_folder.reset(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!locked_folder && errno == ENOENT) {
    return true;
  }
  if (locked_folder && lock_in_time(locked_folder.get())) {
    return true;
  }
  if (locked_folder && errno == EWOULDBLOCK) {
    g_warning("%swexd is already running: another process has locked %s", log_prefix, folder);
    return false;
  }
  g_warning("%sCould not lock %s: %s", log_prefix, folder, g_strerror(errno));
  return true;
}
