// State of the port list, shared by its source files only.
#pragma once

#include "platform/mutex.h"
#include "port/ioport-census.h"
#include "port/ioport.h"

#include <deque>
#include <string>
#include <vector>

namespace port_list {

struct Lists {
  /// Guards all of them. Taken before any port's lock, never the other way round.
  Mutex mutex;
  /// Ports in service, newest first; one reference per port.
  std::deque<IoPort*> io_port_list WEXD_GUARDED_BY(mutex);
  /// Optional ports not in service, latest first; holds the reference the main list held.
  std::deque<IoPort*> io_port_dynamic_list WEXD_GUARDED_BY(mutex);
  /// Ports that will not be tried again; they are gone but for this.
  std::vector<MissingPort> lost_ports WEXD_GUARDED_BY(mutex);
};

extern Lists& lists;

/// The port as one that is not in service.
[[nodiscard]] MissingPort missing_port(const IoPort* port, const std::string& reason);
/// Whether the port can be found by its number.
[[nodiscard]] bool addressable(IoPort* port);
/// Tells the observer whether there is an output-capable port.
void update_action_registration_internal() WEXD_REQUIRES(lists.mutex);

} // namespace port_list
