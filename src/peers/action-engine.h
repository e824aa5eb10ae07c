// Keeps the daemon's action templates registered with the device's action engine while the device
// has an output to act on.
#pragma once

#include <glib.h>

/// Starts to follow the action engine on the bus.
void actionengine_dbus_init();

/// Stops to; what is registered stays so.
void actionengine_dbus_finalize();

/// Says whether the templates are wanted and brings the engine in line, if it is there.
void actionengine_dbus_update_action_registration(gboolean wanted);
