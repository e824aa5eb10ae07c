// What the ports behind another service of the bus have in common: the proxy to it, the state that
// it told last, and the signal by which it tells a change. A service knows a port by its number.
#pragma once

#include "platform/bus-proxy.h"
#include "port/ioport.h"

#include <gio/gio.h>

#include <atomic>

/// The signal of a service that tells a port's new state: (number, state).
struct BusPortSignal {
  BusSignal signal;
  SupervisedState (*state_of)(GVariant* state);
};

struct BusPort;

/// A service that has ports.
struct BusPortService {
  BusService at;
  /// Called when the service has come or gone, if anyone wants to know.
  void (*owner_changed)(BusPort& bus) = nullptr;
};

/// Part of the instance of a port.
struct BusPort {
  ObjectRef<GDBusProxy> proxy;
  /// Whose proxy it is; set with it.
  const BusPortService* service = nullptr;
  BusOwnerWatch owner_watch;
  SignalHandler state_handler;
  /// Whom the handlers serve; set with the proxy.
  IoPort* port = nullptr;
  bool watching = false;
  // These three are used by action-sequence threads as well.
  std::atomic<bool> connected{false};
  std::atomic<Level> output_level{Level::Low};
  std::atomic<SupervisedState> state{SUPERVISED_OPEN};
  const BusPortSignal* followed = nullptr;

  BusPort() = default;
  ~BusPort();
  BusPort(const BusPort&) = delete;
  BusPort& operator=(const BusPort&) = delete;
};

/// Makes the proxy, if there is none yet; false with `error` on failure.
[[nodiscard]] bool bus_port_open(BusPort& bus, IoPort* port, const BusPortService& service,
                                 GError** error);

/// Takes every open port over to the connection that bus_connection_share() has opened, and leaves
/// the start's. What a service told in between is not lost; it is asked nothing again. Main thread
/// only, before anything else can use the ports.
void bus_ports_change_connection();

/// Calls the service and returns a reply of `reply_type` (g_variant_unref; nullptr: any type). NULL
/// on failure, which `tell` hears, and without a proxy, which it does not.
[[nodiscard]] GVariant* bus_port_call(BusPort& bus, const char* method, GVariant* arguments,
                                      const GVariantType* reply_type,
                                      void (*tell)(const char* method, const GError* error));

/// Follows the service's signal; a second time changes nothing. False when it cannot.
[[nodiscard]] bool bus_port_follow(BusPort& bus, const BusPortSignal& signal);

/// Stores the state that the output level shows; whether that is the active one.
[[nodiscard]] bool bus_port_show_output(BusPort& bus);

/// Reports the port's state, if it is watched.
void bus_port_report(const BusPort& bus);
