#include "backends/input-poll.h"

gboolean input_poll_report(IoPort* port, bool changed) {
  const bool state = io_port_get_state(port);
  if (changed) {
    io_port_trigger(port, ReportedState(state));
  }
  return G_SOURCE_CONTINUE;
}
