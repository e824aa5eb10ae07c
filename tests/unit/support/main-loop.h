// Waiting without sleeping.
#pragma once

#include <glib.h>

/// Long enough for a loaded machine under a sanitizer; only a broken test ever waits for it.
inline constexpr gint64 deadline_us = 20 * G_USEC_PER_SEC;

/// Runs the default main context until `condition` holds; false when it does not in time.
template <typename Condition>
bool run_until(Condition condition) {
  const gint64 end = g_get_monotonic_time() + deadline_us;
  while (!condition()) {
    if (g_get_monotonic_time() > end) {
      return false;
    }
    if (!g_main_context_iteration(nullptr, FALSE)) {
      g_usleep(200);
    }
  }
  return true;
}

/// Runs whatever the default main context has ready now.
inline void run_pending() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

/// Milliseconds until the next timer of the default main context; -1 when none runs.
inline gint next_timer_ms() {
  gint priority = 0;
  gint timeout_ms = 0;
  GMainContext* const context = g_main_context_default();
  g_main_context_acquire(context);
  g_main_context_prepare(context, &priority);
  g_main_context_query(context, priority, &timeout_ms, nullptr, 0);
  g_main_context_release(context);
  return timeout_ms;
}

/// Whether no timer of the default main context runs.
inline bool nothing_timed() {
  return next_timer_ms() < 0;
}
