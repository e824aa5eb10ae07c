// Numbers in texts that others wrote.
#pragma once

#include <glib.h>

/// The number that the text begins with, 0 where there is none; errno tells one beyond 64 bits.
/// Base 0 takes decimal, 0x-hexadecimal and octal numbers. What is beyond the type wraps.
template <typename Number>
[[nodiscard]] Number number_of(const char* text, guint base = 10) {
  return static_cast<Number>(g_ascii_strtoll(text, nullptr, base));
}

/// The same for numbers that are never negative and may need 64 bits.
template <typename Number>
[[nodiscard]] Number unsigned_of(const char* text) {
  return static_cast<Number>(g_ascii_strtoull(text, nullptr, 10));
}
