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

void on_state(BusPort& bus, GVariant* arguments) {
  g_autoptr(GVariant) number = g_variant_get_child_value(arguments, 0);
  if (g_variant_get_int32(number) != bus.port->number) {
    return;
  }
  const PortPlace place(bus.port);
  g_autoptr(GVariant) told = g_variant_get_child_value(arguments, 1);
  const SupervisedState state = bus.followed->state_of(told);
  if (state != bus.state) {
    bus.state = state;
    bus_port_report(bus);
  }
}

SignalHandler follow_state(BusPort& bus, const BusPortSignal& signal) {
  return bus_proxy_hear(bus.proxy.get(), signal.signal,
                        [&bus](GVariant* arguments) { on_state(bus, arguments); });
}

void connect_handlers(BusPort& bus) {
  if (bus.service->owner_changed != nullptr) {
    bus.owner_watch.start(bus.proxy.get(), [&bus] { bus.service->owner_changed(bus); });
  }
  if (bus.followed != nullptr) {
    bus.state_handler = follow_state(bus, *bus.followed);
  }
}

bool same_owner(GDBusProxy* one, GDBusProxy* other) {
  g_autofree gchar* owner = g_dbus_proxy_get_name_owner(one);
  g_autofree gchar* other_owner = g_dbus_proxy_get_name_owner(other);
  return g_strcmp0(owner, other_owner) == 0;
}

/// The proxy that a port had, and what it still tells.
struct Left {
  ObjectRef<GDBusProxy> proxy;
  SignalHandler state_handler;
};

// What is left still tells of states, but not of owners: the service would be asked over the
// connection that is left, so that is the new one's.
Left renew(BusPort& bus) {
  g_autoptr(GError) error = nullptr;
  const BusService& service = bus.service->at;
  Left left{.proxy = std::move(bus.proxy), .state_handler = std::move(bus.state_handler)};
  bus.proxy.reset(bus_proxy_renew(service, &error));
  bus.owner_watch.stop();
  if (bus.proxy == nullptr) {
    g_warning("%sError creating proxy to %s: %s\n", log_prefix, service.name, error->message);
    bus.connected = false;
    return left;
  }
  connect_handlers(bus);
  if (bus.service->owner_changed != nullptr && !same_owner(left.proxy.get(), bus.proxy.get())) {
    bus.owner_watch.note_change();
  }
  return left;
}

} // namespace

BusPort::~BusPort() {
  std::erase(open_ports, this);
  owner_watch.stop();
}

bool bus_port_open(BusPort& bus, IoPort* port, const BusPortService& service, GError** error) {
  if (bus.proxy != nullptr) {
    return true;
  }
  bus.proxy.reset(bus_proxy_new(service.at, error));
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
  std::vector<Left> left;
  left.reserve(open_ports.size());
  for (BusPort* bus : open_ports) {
    left.push_back(renew(*bus));
  }
  bus_connection_serve_start();
  left.clear();
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
  GVariant* const reply = bus_call(bus.proxy.get(), method, arguments, reply_type, &error);
  if (reply == nullptr) {
    tell(method, error);
  }
  return reply;
}

bool bus_port_follow(BusPort& bus, const BusPortSignal& signal) {
  if (bus.followed == nullptr) {
    bus.state_handler = follow_state(bus, signal);
    bus.followed = bus.state_handler ? &signal : nullptr;
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
