#include "platform/memory.h"

#include <glib.h>
#include <malloc.h>

#include <atomic>

namespace {

constexpr guint moment_ms = 1000;
std::atomic<bool> pending{false};

} // namespace

void memory_share_one_arena() {
  mallopt(M_ARENA_MAX, 1);
}

void memory_give_back_soon() {
  if (pending.exchange(true)) {
    return;
  }
  g_timeout_add_once(
      moment_ms,
      [](gpointer) {
        pending = false;
        malloc_trim(0);
      },
      nullptr);
}
