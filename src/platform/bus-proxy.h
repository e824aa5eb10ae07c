// Proxies of other services.
#pragma once

#include <gio/gio.h>

/// Where a service is found, and how its proxy is to be.
struct BusService {
  const char* name;
  const char* path;
  const char* interface_name;
  GDBusProxyFlags flags = G_DBUS_PROXY_FLAGS_NONE;
};

/// A new proxy on the bus_connection() of the moment (g_object_unref); NULL with `error` on
/// failure. Main thread only.
GDBusProxy* bus_proxy_new(const BusService& service, GError** error);
