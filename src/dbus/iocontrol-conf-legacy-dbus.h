// The legacy configuration interface: each port's settings as properties in the older per-port
// object layout, on a connection and under a bus name of its own.
#pragma once

#include "port/port-observer.h"

/// Publishes the objects of all ports and takes the name. Must not be published already. Failing
/// to reach the bus, register an object or ask for the name ends the process.
void iocontrol_conf_legacy_dbus_create();

/// Takes everything back. Must be published.
void iocontrol_conf_legacy_dbus_destroy();

/// Emits PropertiesChanged for one setting of a port; does nothing while not published. Any thread.
void wexd_g_dbus_common_emit_property_changed_signal(const IoPort& port, Setting setting);
