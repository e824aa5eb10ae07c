// Numbers in texts that others wrote, and numbers beyond what their type holds.
#pragma once

#include <glib.h>

#include <tuple>

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

/// The sum; one that is beyond the type wraps.
template <typename Number>
[[nodiscard]] Number wrapping_sum(Number a, Number b) {
  Number sum = 0;
  std::ignore = __builtin_add_overflow(a, b, &sum);
  return sum;
}

/// The product; one that is beyond the type wraps.
template <typename Number>
[[nodiscard]] Number wrapping_product(Number a, Number b) {
  Number product = 0;
  std::ignore = __builtin_mul_overflow(a, b, &product);
  return product;
}
