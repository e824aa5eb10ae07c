// Proxies of other services. What a service tells of its properties is asked for here and not by
// the proxy itself, so that a service that hangs is left alone (hung-services.h).
//
// Main thread only.
#pragma once

#include "platform/object-handles.h"

#include <gio/gio.h>

#include <functional>

/// Where a service is found, and how its proxy is to be.
struct BusService {
  const char* name;
  const char* path;
  const char* interface_name;
  GDBusProxyFlags flags = G_DBUS_PROXY_FLAGS_NONE;
};

/// A new proxy on the bus_connection() of the moment (g_object_unref), with the service's
/// properties unless its flags say otherwise; NULL with `error` on failure.
[[nodiscard]] GDBusProxy* bus_proxy_new(const BusService& service, GError** error);

/// As bus_proxy_new(), for a service that was asked before: it is neither started nor asked
/// anything.
[[nodiscard]] GDBusProxy* bus_proxy_renew(const BusService& service, GError** error);

/// Called from the main loop with a new proxy, or with none after a warning.
using BusProxyMade = std::function<void(ObjectRef<GDBusProxy> proxy)>;

/// Makes a proxy without its properties, and waits for nobody. `made` is not called any more once
/// `cancellable` is cancelled. Without a connection it is called at once.
void bus_proxy_make(const BusService& service, GCancellable* cancellable, BusProxyMade made);

/// Asks the proxy's service for its properties, and waits for nobody. `answered` is called from the
/// main loop when the proxy has what there is to have, or at once when there is nobody to ask; not
/// any more once `cancellable` is cancelled.
void bus_proxy_ask(GDBusProxy* proxy, GCancellable* cancellable, std::function<void()> answered);

/// A signal of a service.
struct BusSignal {
  const char* name;
  /// Of all its arguments; one with others is not heard.
  const char* type;
};

/// Has `heard` called from the main loop with the arguments of each such signal, until the handler
/// goes.
[[nodiscard]] SignalHandler bus_proxy_hear(GDBusProxy* proxy, const BusSignal& signal,
                                           std::function<void(GVariant* arguments)> heard);

/// Has `changed` called from the main loop whenever the proxy's service comes or goes, until the
/// handler goes.
[[nodiscard]] SignalHandler bus_proxy_follow_owner(GDBusProxy* proxy,
                                                   std::function<void()> changed);

/// Follows the coming and going of a proxy's service. When it comes, its properties are asked for
/// first; nobody waits for that.
class BusOwnerWatch {
public:
  /// From here on `changed` is called from the main loop, until stop().
  void start(GDBusProxy* proxy, std::function<void()> changed);
  void stop();

  /// Does what a change does.
  void note_change();

private:
  GDBusProxy* proxy_ = nullptr;
  SignalHandler handler_;
  UnderWay question_;
  std::function<void()> changed_;
};
