// Precondition checks for the main entry points of a module. GLib's own macros print the C++
// signature as the function; these print the plain name, which is what an operator can search for.
#pragma once

#include <glib.h>

#define WEXD_RETURN_IF_FAIL(expr)                                                                  \
  do {                                                                                             \
    if (!(expr)) {                                                                                 \
      g_return_if_fail_warning(G_LOG_DOMAIN, __func__, #expr);                                     \
      return;                                                                                      \
    }                                                                                              \
  } while (0)

#define WEXD_RETURN_VAL_IF_FAIL(expr, value)                                                       \
  do {                                                                                             \
    if (!(expr)) {                                                                                 \
      g_return_if_fail_warning(G_LOG_DOMAIN, __func__, #expr);                                     \
      return value;                                                                                \
    }                                                                                              \
  } while (0)

/// For pointers that only a programming error leaves empty: ends the process. GLib's own macro
/// says "nullptr" when compiled as C++, and operators look for "NULL".
#define WEXD_ASSERT_NONNULL(expr)                                                                  \
  do {                                                                                             \
    if ((expr) == nullptr) {                                                                       \
      g_assertion_message(G_LOG_DOMAIN, __FILE__, __LINE__, __func__,                              \
                          "'" #expr "' should not be NULL");                                       \
    }                                                                                              \
  } while (0)
