#include "backends/trouble.h"

#include <algorithm>
#include <utility>

namespace {

constexpr gint64 tell_again_us = gint64{60} * G_USEC_PER_SEC;

} // namespace

guint Rest::next() {
  return std::exchange(next_ms_, std::min(2 * next_ms_, longest_rest_ms));
}

bool Trouble::due() const {
  return g_get_monotonic_time() >= due_us_;
}

bool Trouble::tell() {
  if (!due()) {
    return false;
  }
  due_us_ = g_get_monotonic_time() + tell_again_us;
  return true;
}

bool Trouble::end() {
  return std::exchange(due_us_, 0) != 0;
}
