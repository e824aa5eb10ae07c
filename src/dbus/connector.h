// The connector service: com.norv.WXD.Connector on the system bus.
#pragma once

#include <gio/gio.h>

inline constexpr const char* connector_name = "com.norv.WXD.Connector";

/// Publishes the service; the bus-acquired callback of its name.
void connector_on_bus_acquired(GDBusConnection* connection, const gchar* name, gpointer user_data);

/// Takes the service off the bus.
void connector_unpublish();
