// The ports that calls name.
#pragma once

#include "port/ioport-list.h"

#include <glib.h>

/// The addressable port of the number that a call gave, if there is one. Callers count from 0 up;
/// the model's numbers may be negative, which those beyond 31 bits are.
[[nodiscard]] inline IoPortRef dbus_port_of_number(guint number) {
  return io_port_list_get_port(static_cast<gint>(number));
}
