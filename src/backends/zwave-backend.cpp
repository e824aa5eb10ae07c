#include "backends/zwave-backend.h"

#include "backends/backend-data.h"
#include "backends/bus-port.h"
#include "backends/empty-slots.h"
#include "platform/bus-call.h"
#include "platform/log.h"

#include <syslog.h>

#include <mutex>

namespace {

struct ZwavePortData {
  BusPort bus;
  /// Held from reading the output value until the service has it: the service ends up with the
  /// value that was set last, whichever thread sends first.
  std::mutex send_lock;
};

constexpr BusPortSignal state_changed{
    .signal = {.name = "StateChangedByPort", .type = "(ib)"}, .state_of = [](GVariant* active) {
      return g_variant_get_boolean(active) ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
    }};

GVariant* call(ZwavePortData* data, const char* method, GVariant* arguments,
               const GVariantType* reply_type) {
  return bus_port_call(data->bus, method, arguments, reply_type,
                       [](const char* failed, const GError* error) {
                         syslog(LOG_ERR, "Failed to call method %s: %s", failed, error->message);
                       });
}

void send_state(IoPort* port, ZwavePortData* data) {
  const std::lock_guard guard(data->send_lock);
  const gboolean active = bus_port_show_output(data->bus);
  [[maybe_unused]] g_autoptr(GVariant) reply =
      call(data, "SetStateByPort", g_variant_new("(ib)", port->number, active), nullptr);
}

void ask_state(IoPort* port, ZwavePortData* data) {
  g_autoptr(GVariant) reply =
      call(data, "GetStateByPort", g_variant_new("(i)", port->number), G_VARIANT_TYPE("(b)"));
  if (reply == nullptr) {
    return;
  }
  gboolean active = FALSE;
  g_variant_get(reply, "(b)", &active);
  data->bus.state = active ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
  bus_port_report(data->bus);
}

// Brings port and service to the same state: an input takes the service's, an output gives its own.
void synchronise(IoPort* port, ZwavePortData* data) {
  data->bus.connected = true;
  if (io_port_input(port)) {
    data->bus.state = SUPERVISED_UNDEFINED;
    ask_state(port, data);
  } else {
    send_state(port, data);
  }
  if (data->bus.proxy != nullptr && !bus_port_follow(data->bus, state_changed)) {
    syslog(LOG_ERR, "Failed to setup signal handler");
  }
}

void on_owner_changed(BusPort& bus) {
  if (bus_has_owner(bus.proxy.get())) {
    synchronise(bus.port, backend_data<ZwavePortData>(bus.port));
  } else {
    bus.connected = false;
  }
}

constexpr BusPortService service{.at = {.name = "com.norv.ZWave.IO",
                                        .path = "/com/norv/ZWave",
                                        .interface_name = "com.norv.ZWave.IO",
                                        .flags = G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START},
                                 .owner_changed = on_owner_changed};

void reach_service(IoPort* port, BusPort& bus) {
  g_autoptr(GError) error = nullptr;
  if (!bus_port_open(bus, port, service, &error)) {
    g_warning("%sError creating proxy to %s: %s\n", log_prefix, service.at.name, error->message);
  }
}

bool zwave_setup(IoPort* port, Level start) {
  auto* data = backend_data_ensure<ZwavePortData>(port);
  io_port_set_enabled(port, true);
  reach_service(port, data->bus);
  data->bus.output_level = start;
  synchronise(port, data);
  return true;
}

Level zwave_get_state(IoPort* port) {
  const auto* data = backend_data<ZwavePortData>(port);
  return data != nullptr && data->bus.connected ? supervised_level_of(data->bus.state) : Level::Low;
}

void zwave_set_state(IoPort* port, Level level) {
  auto* data = backend_data_ensure<ZwavePortData>(port);
  data->bus.output_level = level;
  send_state(port, data);
}

bool zwave_set_watch(IoPort* port) {
  backend_data_ensure<ZwavePortData>(port)->bus.watching = true;
  return true;
}

constexpr PortFunctions functions = backend_table<ZwavePortData>({
    .setup = zwave_setup,
    .get_state = zwave_get_state,
    .set_state = zwave_set_state,
    .set_watch = zwave_set_watch,
    .set_direction = ignore_direction,
    .parse_data = ignore_description,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* zwave_setup_functions(IoPort* port) {
  return backend_attach<ZwavePortData>(port, functions);
}
