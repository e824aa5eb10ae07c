// Proxies of other services. What a service tells of its properties is asked for here and not by
// the proxy itself, so that a service that hangs is left alone (hung-services.h).
//
// Main thread only.
#pragma once

#include <gio/gio.h>

/// Where a service is found, and how its proxy is to be.
struct BusService {
  const char* name;
  const char* path;
  const char* interface_name;
  GDBusProxyFlags flags = G_DBUS_PROXY_FLAGS_NONE;
};

/// A new proxy on the bus_connection() of the moment (g_object_unref), with the service's
/// properties unless its flags say otherwise; NULL with `error` on failure.
GDBusProxy* bus_proxy_new(const BusService& service, GError** error);

/// The same for a service that was asked before: it is neither started nor asked anything.
GDBusProxy* bus_proxy_renew(const BusService& service, GError** error);

/// Follows the coming and going of a proxy's service. When it comes, its properties are asked for
/// first; nobody waits for that.
class BusOwnerWatch {
public:
  using Changed = void (*)(gpointer user_data);

  BusOwnerWatch() = default;
  ~BusOwnerWatch() { stop(); }
  BusOwnerWatch(const BusOwnerWatch&) = delete;
  BusOwnerWatch& operator=(const BusOwnerWatch&) = delete;

  /// From here on `changed` is called from the main loop, until stop().
  void start(GDBusProxy* proxy, Changed changed, gpointer user_data);
  void stop();

  /// Does what a change does.
  void note_change();

private:
  void ask();
  static void on_properties(GObject* proxy, GAsyncResult* result, gpointer user_data);

  GDBusProxy* proxy_ = nullptr;
  gulong handler_ = 0;
  /// Of the question that is under way.
  GCancellable* question_ = nullptr;
  guint64 begun_ = 0;
  Changed changed_ = nullptr;
  gpointer user_data_ = nullptr;
};
