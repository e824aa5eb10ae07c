#include "backends/zwave-backend.h"

#include "backends/backend-data.h"
#include "platform/bus-call.h"
#include "platform/log.h"

#include <syslog.h>

#include <mutex>

namespace {

constexpr const char* bus_name = "com.norv.ZWave.IO";
constexpr const char* object_path = "/com/norv/ZWave";
constexpr const char* interface_name = "com.norv.ZWave.IO";

constexpr guint state_unknown = 4;

struct ZwavePortData {
  GDBusProxy* proxy = nullptr;
  bool watching = false;
  // These three are used by action-sequence threads as well.
  std::atomic<bool> connected{false};
  std::atomic<gint> output_value{0};
  std::atomic<guint> state{0};
  /// Held from reading the output value until the service has it: the service ends up with the
  /// value that was set last, whichever thread sends first.
  std::mutex send_lock;
  gulong signal_handler = 0;

  ZwavePortData() = default;
  ~ZwavePortData() {
    if (proxy != nullptr) {
      g_signal_handlers_disconnect_matched(proxy, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                           handler_data);
    }
    g_clear_object(&proxy);
  }
  ZwavePortData(const ZwavePortData&) = delete;
  ZwavePortData& operator=(const ZwavePortData&) = delete;

  /// What the proxy's handlers were connected with: the port.
  gpointer handler_data = nullptr;
};

GVariant* call(ZwavePortData* data, const char* method, GVariant* arguments,
               const GVariantType* reply_type) {
  if (data->proxy == nullptr) {
    g_clear_pointer(&arguments, g_variant_unref);
    return nullptr;
  }
  g_autoptr(GError) error = nullptr;
  GVariant* const reply = bus_call(data->proxy, method, arguments, reply_type, &error);
  if (reply == nullptr) {
    syslog(LOG_ERR, "Failed to call method %s: %s", method, error->message);
  }
  return reply;
}

void send_state(IoPort* port, ZwavePortData* data) {
  const std::lock_guard guard(data->send_lock);
  const gint value = data->output_value;
  data->state = value > 0 ? 1 : 0;
  [[maybe_unused]] g_autoptr(GVariant) reply =
      call(data, "SetStateByPort",
           g_variant_new("(ib)", port->number, static_cast<gboolean>(value > 0)), nullptr);
}

void report(IoPort* port, const ZwavePortData* data) {
  if (data->watching) {
    io_port_trigger(port, io_port_get_state(port) ? 1 : 0);
  }
}

void on_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
               GVariant* arguments, gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<ZwavePortData>(port);
  if (!bus_signal_is(signal, arguments, "StateChangedByPort", "(ib)")) {
    return;
  }
  gint number = 0;
  gboolean active = FALSE;
  g_variant_get(arguments, "(ib)", &number, &active);
  const guint state = active ? 1 : 0;
  if (number != port->number || state == data->state) {
    return;
  }
  data->state = state;
  report(port, data);
}

void ask_state(IoPort* port, ZwavePortData* data) {
  g_autoptr(GVariant) reply =
      call(data, "GetStateByPort", g_variant_new("(i)", port->number), G_VARIANT_TYPE("(b)"));
  if (reply == nullptr) {
    return;
  }
  gboolean active = FALSE;
  g_variant_get(reply, "(b)", &active);
  data->state = active ? 1 : 0;
  report(port, data);
}

// Brings port and service to the same state: an input takes the service's, an output gives its own.
void synchronise(IoPort* port, ZwavePortData* data) {
  data->connected = true;
  if (io_port_input(port)) {
    data->state = state_unknown;
    ask_state(port, data);
  } else {
    send_state(port, data);
  }
  if (data->signal_handler == 0 && data->proxy != nullptr) {
    data->signal_handler = g_signal_connect(data->proxy, "g-signal", G_CALLBACK(on_signal), port);
    if (data->signal_handler == 0) {
      syslog(LOG_ERR, "Failed to setup signal handler");
    }
  }
}

void on_owner_changed(GDBusProxy* proxy, GParamSpec* /*property*/, gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<ZwavePortData>(port);
  if (bus_has_owner(proxy)) {
    synchronise(port, data);
  } else {
    data->connected = false;
  }
}

void create_proxy(IoPort* port, ZwavePortData* data) {
  g_autoptr(GError) error = nullptr;
  data->proxy = g_dbus_proxy_new_for_bus_sync(
      G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, nullptr, bus_name, object_path,
      interface_name, nullptr, &error);
  if (data->proxy == nullptr) {
    g_warning("%sError creating proxy to %s: %s\n", log_prefix, bus_name, error->message);
    return;
  }
  data->handler_data = port;
  g_signal_connect(data->proxy, "notify::g-name-owner", G_CALLBACK(on_owner_changed), port);
}

gboolean zwave_setup(IoPort* port, gboolean value) {
  auto* data = backend_data_ensure<ZwavePortData>(port);
  io_port_set_enabled(port, true);
  if (data->proxy == nullptr) {
    create_proxy(port, data);
  }
  data->output_value = value;
  synchronise(port, data);
  return TRUE;
}

guint zwave_get_state(IoPort* port) {
  const auto* data = backend_data<ZwavePortData>(port);
  return data != nullptr && data->connected ? data->state.load() : 0;
}

void zwave_set_state(IoPort* port, gint value) {
  auto* data = backend_data_ensure<ZwavePortData>(port);
  data->output_value = value;
  send_state(port, data);
}

gboolean zwave_set_watch(IoPort* port) {
  backend_data_ensure<ZwavePortData>(port)->watching = true;
  return TRUE;
}

void zwave_set_direction(IoPort* /*port*/, gboolean /*input*/) {}

void zwave_parse_data(IoPort* /*port*/, const char* /*element*/, const char* /*key*/,
                      const char* /*value*/) {}

void zwave_free(IoPort* port) {
  backend_data_free<ZwavePortData>(port);
}

constexpr PortFunctions functions{
    .setup = zwave_setup,
    .get_state = zwave_get_state,
    .set_state = zwave_set_state,
    .set_watch = zwave_set_watch,
    .set_direction = zwave_set_direction,
    .parse_data = zwave_parse_data,
    .free = zwave_free,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* zwave_setup_functions(IoPort* port) {
  backend_data_ensure<ZwavePortData>(port);
  return &functions;
}
