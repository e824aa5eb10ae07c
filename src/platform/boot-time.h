// A clock that nobody sets: the time since the boot, sleep included. A device without a battery
// learns what day it is long after its daemons have started.
#pragma once

#include <glib.h>

#include <ctime>

/// Microseconds since the boot.
inline gint64 boot_time_us() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return gint64{now.tv_sec} * G_USEC_PER_SEC + now.tv_nsec / 1000;
}
