// Manual-trigger ports: virtual outputs that let a client raise an event for a video channel.
#include "event/event.h"
#include "platform/numbers.h"
#include "port/action-sequence.h"

#include <optional>
#include <tuple>

namespace {

constexpr gint default_first_port_no = 5;

/// As the hardware description has it, if it does.
std::optional<gint> first_port_no;

IoEventPtr manual_trigger_event(gint channel) {
  IoEventPtr event(new IoEvent);
  event->declaration = "com.norv.Event.Wxd.ManualTrigger";
  event->key_values.push_back(
      {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
  event->key_values.push_back(
      {.key = "port", .value = std::to_string(channel), .type = "int", .property = false});
  return event;
}

} // namespace

void virtual_input_set_first_port_no(gint port_no) {
  first_port_no = port_no;
}

gint virtual_input_get_first_port_no() {
  return first_port_no.value_or(default_first_port_no);
}

bool virtual_input_in_use() {
  return first_port_no.has_value();
}

IoPortRef io_port_create_manual_trigger(gint channel) {
  IoPortRef port = io_port_new();
  port->type = PORT_OUTPUT;
  // The first number is whatever the hardware description says, up to the greatest there is.
  port->number = wrapping_sum(virtual_input_get_first_port_no(), channel - 1);
  port->name = "manualtrigger" + std::to_string(channel);
  port->is_setup = true;
  port->enabled = false;
  std::ignore = io_port_set_backend(port.get(), BACKEND_VIRTUAL);
  io_port_add_property(port.get(), "virtual", "true");
  port->events.push_front(manual_trigger_event(channel));
  std::ignore = io_port_setup(port.get());
  return port;
}
