// What is done to all ports in turn: set-up, watches, events, default names.
#include "port/ioport-list.h"

#include "event/event.h"
#include "platform/log.h"
#include "port/ioport-list-internal.h"
#include "port/port-place.h"

#include <algorithm>
#include <tuple>
#include <unordered_set>

using namespace port_list;

namespace {

constexpr const char* number_is_taken = "another port has its number";

void remove_from_main_list(const std::vector<IoPort*>& ports) WEXD_REQUIRES(lists.mutex) {
  const std::unordered_set<IoPort*> leaving(ports.begin(), ports.end());
  std::erase_if(lists.io_port_list, [&](IoPort* port) { return leaving.contains(port); });
}

// Whether an addressable port of that number is in service.
bool number_in_service(gint number) WEXD_REQUIRES(lists.mutex) {
  return std::ranges::any_of(lists.io_port_list, [number](IoPort* port) {
    return port->number == number && addressable(port);
  });
}

std::string default_name(const IoPort* port) {
  return "Port " + std::to_string(port->number + 1);
}

// The first warning of a set-up that fails says why, as far as anything does.
bool setup_or_note_why(IoPort* port) {
  const FirstWarning heard;
  if (io_port_setup(port)) {
    return true;
  }
  port->absence = heard.text();
  return false;
}

bool bring_into_service(IoPort* port) WEXD_REQUIRES(lists.mutex) {
  if (number_in_service(port->number)) {
    port->absence = number_is_taken;
    return false;
  }
  return setup_or_note_why(port);
}

void destroy_lost(const std::vector<IoPort*>& ports) WEXD_REQUIRES(lists.mutex) {
  for (IoPort* port : ports) {
    lists.lost_ports.push_back(missing_port(port, port->absence));
    io_port_free(port);
  }
}

// Closed without the list's mutex, as a running sequence that has to end first may be in need of
// it.
void close_gone_ports() {
  std::vector<IoPortRef> gone;
  {
    const MutexLock guard(lists.mutex);
    for (IoPort* port : lists.io_port_list) {
      if (port->hardware_gone && port->is_setup) {
        gone.push_back(io_port_ref(port));
      }
    }
  }
  for (const auto& port : gone) {
    io_port_close(port.get());
  }
}

// Those whose hardware is still gone stay in service, without a state, and are tried next time.
gint setup_gone_ports() WEXD_REQUIRES(lists.mutex) {
  return static_cast<gint>(std::ranges::count_if(
      lists.io_port_list, [](IoPort* port) { return port->hardware_gone && io_port_setup(port); }));
}

void set_default_input_name(IoPort* port) {
  if (port->input_name) {
    return;
  }
  const bool pir = port->name == "pir_detector";
  std::ignore = io_port_set_input_name(port, pir ? "PIR sensor" : default_name(port).c_str());
}

void set_default_output_name(IoPort* port) {
  if (!port->output_name) {
    std::ignore = io_port_set_output_name(port, default_name(port).c_str());
  }
}

} // namespace

void io_port_list_setup() {
  const MutexLock guard(lists.mutex);
  std::unordered_set<gint> numbers_taken;
  std::vector<IoPort*> to_destroy;
  std::vector<IoPort*> waiting;
  for (IoPort* port : lists.io_port_list) {
    if (setup_or_note_why(port)) {
      // The walk meets the newest definition of a number first; only that one stays. A port that
      // cannot be addressed never takes a number away from another.
      if (numbers_taken.contains(port->number)) {
        port->absence = number_is_taken;
        to_destroy.push_back(port);
      } else if (addressable(port)) {
        numbers_taken.insert(port->number);
      }
    } else if (port->optional) {
      lists.io_port_dynamic_list.push_front(port);
      waiting.push_back(port);
    } else {
      const PortPlace place(port);
      g_log(G_LOG_DOMAIN, log_level_user, "%sSetup failed for port %d, removing from list",
            log_prefix, port->number);
      to_destroy.push_back(port);
    }
  }

  remove_from_main_list(to_destroy);
  destroy_lost(to_destroy);
  remove_from_main_list(waiting);
  update_action_registration_internal();
}

gint io_port_list_setup_dynamic_ports() {
  close_gone_ports();
  const MutexLock guard(lists.mutex);
  gint count = setup_gone_ports();
  for (gsize i = 0; i < lists.io_port_dynamic_list.size();) {
    IoPort* const port = lists.io_port_dynamic_list[i];
    if (!bring_into_service(port)) {
      i++;
      continue;
    }
    lists.io_port_list.push_front(port);
    lists.io_port_dynamic_list.erase(lists.io_port_dynamic_list.begin()
                                     + static_cast<std::ptrdiff_t>(i));
    count++;
  }
  if (count > 0) {
    update_action_registration_internal();
  }
  return count;
}

void io_port_list_read_params(bool (*read_params)(IoPort* port)) {
  const MutexLock guard(lists.mutex);
  std::ranges::for_each(lists.io_port_list, read_params);
}

void io_port_list_set_watch() {
  const MutexLock guard(lists.mutex);
  for (IoPort* port : lists.io_port_list) {
    if (!port->hardware_gone) {
      const PortPlace place(port);
      std::ignore = io_port_set_watch(port);
    }
  }
}

void io_port_list_declare_events() {
  const MutexLock guard(lists.mutex);
  for (IoPort* port : lists.io_port_list) {
    if (!port->enabled) {
      continue;
    }
    const PortPlace place(port);
    for (const auto& event : port->events) {
      if (!io_event_declare_event(port, event.get())) {
        g_warning("%sCould not declare event %s", log_prefix, c_str_or_null(event->declaration));
      }
    }
  }
}

// Walks by number below the count of ports, so a port numbered at or above it keeps no name.
void io_port_list_update_names() {
  for (gint number = 0; std::cmp_less(number, io_port_list_length()); number++) {
    for (const auto& port : io_port_list_get_port_list(number)) {
      if (io_port_has_input_side(port.get())) {
        set_default_input_name(port.get());
      }
      if (io_port_has_output_side(port.get())) {
        set_default_output_name(port.get());
      }
    }
  }
}
