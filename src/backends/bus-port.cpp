#include "backends/bus-port.h"

#include "platform/bus-call.h"
#include "platform/bus-connection.h"
#include "platform/log.h"
#include "port/port-place.h"

#include <utility>
#include <vector>

namespace {

/// Those with a proxy. Main thread only.
std::vector<BusPort*> open_ports;

void on_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
               GVariant* arguments, gpointer user_data) {
  auto* bus = static_cast<BusPort*>(user_data);
  if (!bus_signal_is(signal, arguments, bus->followed->name, bus->followed->type)) {
    return;
  }
  g_autoptr(GVariant) number = g_variant_get_child_value(arguments, 0);
  if (g_variant_get_int32(number) != bus->port->number) {
    return;
  }
  const PortPlace place(bus->port);
  g_autoptr(GVariant) told = g_variant_get_child_value(arguments, 1);
  const SupervisedState state = bus->followed->state_of(told);
  if (state != bus->state) {
    bus->state = state;
    bus_port_report(*bus);
  }
}

void connect_handlers(BusPort& bus) {
  if (bus.service->owner_changed != nullptr) {
    bus.owner_watch.start(bus.proxy, [&bus] { bus.service->owner_changed(bus); });
  }
  if (bus.followed != nullptr) {
    g_signal_connect(bus.proxy, "g-signal", G_CALLBACK(on_signal), &bus);
  }
}

void release_proxy(GDBusProxy* proxy, BusPort* bus) {
  g_signal_handlers_disconnect_matched(proxy, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, bus);
  g_object_unref(proxy);
}

bool same_owner(GDBusProxy* one, GDBusProxy* other) {
  g_autofree gchar* owner = g_dbus_proxy_get_name_owner(one);
  g_autofree gchar* other_owner = g_dbus_proxy_get_name_owner(other);
  return g_strcmp0(owner, other_owner) == 0;
}

// Returns the proxy that the port had. It still tells of states, but not of owners: the service
// would be asked over the connection that is left, so that is the new one's.
GDBusProxy* renew(BusPort& bus) {
  g_autoptr(GError) error = nullptr;
  const BusService& service = bus.service->at;
  GDBusProxy* const old = std::exchange(bus.proxy, bus_proxy_renew(service, &error));
  bus.owner_watch.stop();
  if (bus.proxy == nullptr) {
    g_warning("%sError creating proxy to %s: %s\n", log_prefix, service.name, error->message);
    bus.connected = false;
    return old;
  }
  connect_handlers(bus);
  if (bus.service->owner_changed != nullptr && !same_owner(old, bus.proxy)) {
    bus.owner_watch.note_change();
  }
  return old;
}

} // namespace

BusPort::~BusPort() {
  std::erase(open_ports, this);
  owner_watch.stop();
  if (proxy != nullptr) {
    release_proxy(proxy, this);
  }
}

bool bus_port_open(BusPort& bus, IoPort* port, const BusPortService& service, GError** error) {
  if (bus.proxy != nullptr) {
    return true;
  }
  bus.proxy = bus_proxy_new(service.at, error);
  if (bus.proxy == nullptr) {
    return false;
  }
  bus.service = &service;
  bus.port = port;
  open_ports.push_back(&bus);
  connect_handlers(bus);
  return true;
}

// For a moment a state is told over both connections, which is harmless; over none would not be.
void bus_ports_change_connection() {
  std::vector<std::pair<BusPort*, GDBusProxy*>> left;
  left.reserve(open_ports.size());
  for (BusPort* bus : open_ports) {
    left.emplace_back(bus, renew(*bus));
  }
  bus_connection_serve_start();
  for (const auto& [bus, proxy] : left) {
    release_proxy(proxy, bus);
  }
  bus_connection_leave_start();
  std::erase_if(open_ports, [](const BusPort* bus) { return bus->proxy == nullptr; });
}

GVariant* bus_port_call(BusPort& bus, const char* method, GVariant* arguments,
                        const GVariantType* reply_type,
                        void (*tell)(const char* method, const GError* error)) {
  if (bus.proxy == nullptr) {
    g_clear_pointer(&arguments, g_variant_unref);
    return nullptr;
  }
  g_autoptr(GError) error = nullptr;
  GVariant* const reply = bus_call(bus.proxy, method, arguments, reply_type, &error);
  if (reply == nullptr) {
    tell(method, error);
  }
  return reply;
}

bool bus_port_follow(BusPort& bus, const BusPortSignal& signal) {
  if (bus.followed == nullptr
      && g_signal_connect(bus.proxy, "g-signal", G_CALLBACK(on_signal), &bus) != 0) {
    bus.followed = &signal;
  }
  return bus.followed != nullptr;
}

bool bus_port_show_output(BusPort& bus) {
  const bool active = bus.output_level == Level::High;
  bus.state = active ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
  return active;
}

void bus_port_report(const BusPort& bus) {
  if (bus.watching) {
    io_port_trigger(bus.port, ReportedState(io_port_get_state(bus.port)));
  }
}
