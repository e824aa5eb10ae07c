// The legacy configuration interface: each port's settings as properties in the older per-port
// object layout, on a connection and under a bus name of its own.
#pragma once

#include <glib.h>

/// Publishes the objects of all ports and takes the name. Must not be published already. Failing
/// to reach the bus, register an object or ask for the name ends the process.
void iocontrol_conf_legacy_dbus_create();

/// Takes everything back. Must be published.
void iocontrol_conf_legacy_dbus_destroy();

/// Emits PropertiesChanged for one property; does nothing while not published. Any thread.
/// `interface_selector`: 0 Input, 1 Output, 2 IOPort.
void wexd_g_dbus_common_emit_property_changed_signal(const char* property, const char* value,
                                                     gint port_number, guint interface_selector);
