#include "backends/zwave-backend.h"

#include "backends/bus-port.h"
#include "backends/hardware.h"
#include "platform/bus-call.h"
#include "platform/log.h"

#include <syslog.h>

#include <mutex>

namespace {

class ZwavePort {
public:
  explicit ZwavePort(IoPort& port) : port_(port) {}

  bool setup(Level start);
  [[nodiscard]] Level get_state() const;
  void set_state(Level level);
  bool set_watch();

private:
  static void on_owner_changed(BusPort& bus);

  GVariant* call(const char* method, GVariant* arguments, const GVariantType* reply_type);
  void send_state();
  void ask_state();
  void synchronise();
  void reach_service();

  IoPort& port_;
  BusPort bus_;
  /// Held from reading the output value until the service has it: the service ends up with the
  /// value that was set last, whichever thread sends first.
  std::mutex send_lock_;
};

constexpr BusPortSignal state_changed{
    .signal = {.name = "StateChangedByPort", .type = "(ib)"}, .state_of = [](GVariant* active) {
      return g_variant_get_boolean(active) ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
    }};

GVariant* ZwavePort::call(const char* method, GVariant* arguments, const GVariantType* reply_type) {
  return bus_port_call(bus_, method, arguments, reply_type,
                       [](const char* failed, const GError* error) {
                         syslog(LOG_ERR, "Failed to call method %s: %s", failed, error->message);
                       });
}

void ZwavePort::send_state() {
  const std::lock_guard guard(send_lock_);
  const gboolean active = bus_port_show_output(bus_);
  [[maybe_unused]] g_autoptr(GVariant) reply =
      call("SetStateByPort", g_variant_new("(ib)", port_.number, active), nullptr);
}

void ZwavePort::ask_state() {
  g_autoptr(GVariant) reply =
      call("GetStateByPort", g_variant_new("(i)", port_.number), G_VARIANT_TYPE("(b)"));
  if (reply == nullptr) {
    return;
  }
  gboolean active = FALSE;
  g_variant_get(reply, "(b)", &active);
  bus_.state = active ? SUPERVISED_CLOSED : SUPERVISED_OPEN;
  bus_port_report(bus_);
}

// Brings port and service to the same state: an input takes the service's, an output gives its own.
void ZwavePort::synchronise() {
  bus_.connected = true;
  if (io_port_input(&port_)) {
    bus_.state = SUPERVISED_UNDEFINED;
    ask_state();
  } else {
    send_state();
  }
  if (bus_.proxy != nullptr && !bus_port_follow(bus_, state_changed)) {
    syslog(LOG_ERR, "Failed to setup signal handler");
  }
}

void ZwavePort::on_owner_changed(BusPort& bus) {
  if (bus_has_owner(bus.proxy.get())) {
    hardware_of<ZwavePort>(bus.port)->synchronise();
  } else {
    bus.connected = false;
  }
}

void ZwavePort::reach_service() {
  static constexpr BusPortService service{.at = {.name = "com.norv.ZWave.IO",
                                                 .path = "/com/norv/ZWave",
                                                 .interface_name = "com.norv.ZWave.IO",
                                                 .flags = G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START},
                                          .owner_changed = on_owner_changed};
  g_autoptr(GError) error = nullptr;
  if (!bus_port_open(bus_, &port_, service, &error)) {
    g_warning("%sError creating proxy to %s: %s\n", log_prefix, service.at.name, error->message);
  }
}

bool ZwavePort::setup(Level start) {
  io_port_set_enabled(&port_, true);
  reach_service();
  bus_.output_level = start;
  synchronise();
  return true;
}

Level ZwavePort::get_state() const {
  return bus_.connected ? supervised_level_of(bus_.state) : Level::Low;
}

void ZwavePort::set_state(Level level) {
  bus_.output_level = level;
  send_state();
}

bool ZwavePort::set_watch() {
  bus_.watching = true;
  return true;
}

} // namespace

const PortFunctions* zwave_setup_functions(IoPort* port) {
  return hardware_attach<ZwavePort>(port);
}
