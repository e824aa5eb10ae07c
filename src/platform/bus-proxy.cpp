#include "platform/bus-proxy.h"

#include "platform/bus-connection.h"

GDBusProxy* bus_proxy_new(const BusService& service, GError** error) {
  GDBusConnection* const connection = bus_connection(error);
  if (connection == nullptr) {
    return nullptr;
  }
  GMainContext* const context = bus_connection_context();
  g_main_context_push_thread_default(context);
  GDBusProxy* const proxy =
      g_dbus_proxy_new_sync(connection, service.flags, nullptr, service.name, service.path,
                            service.interface_name, nullptr, error);
  g_main_context_pop_thread_default(context);
  return proxy;
}
