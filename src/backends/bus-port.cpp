#include "backends/bus-port.h"

#include "platform/bus-call.h"

namespace {

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
  g_autoptr(GVariant) told = g_variant_get_child_value(arguments, 1);
  const guint state = bus->followed->state_of(told);
  if (state != bus->state) {
    bus->state = state;
    bus_port_report(*bus);
  }
}

} // namespace

BusPort::~BusPort() {
  if (proxy != nullptr) {
    g_signal_handlers_disconnect_matched(proxy, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr, this);
  }
  g_clear_object(&proxy);
}

bool bus_port_open(BusPort& bus, IoPort* port, const BusService& service, GError** error) {
  if (bus.proxy == nullptr) {
    bus.proxy =
        g_dbus_proxy_new_for_bus_sync(G_BUS_TYPE_SYSTEM, service.flags, nullptr, service.name,
                                      service.path, service.name, nullptr, error);
    bus.port = port;
  }
  return bus.proxy != nullptr;
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
  const bool active = bus.output_value > 0;
  bus.state = active ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
  return active;
}

void bus_port_report(const BusPort& bus) {
  if (bus.watching) {
    io_port_trigger(bus.port, io_port_get_state(bus.port) ? 1 : 0);
  }
}
