#include "backends/input-poll.h"

#include "platform/callbacks.h"
#include "port/port-place.h"

bool InputPoll::set_watch() {
  if (!source_) {
    unreported_ = look();
    source_.reset(g_timeout_add(interval_ms_, callback<&InputPoll::on_time>, this));
  }
  return true;
}

gboolean InputPoll::on_time() {
  const PortPlace place(&port_);
  const bool unreported = std::exchange(unreported_, false);
  const bool changed = refresh() || unreported;
  const bool state = io_port_get_state(&port_);
  if (changed) {
    io_port_trigger(&port_, ReportedState(state));
  }
  return G_SOURCE_CONTINUE;
}
