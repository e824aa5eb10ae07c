#include "peers/coordinator-dbus.h"

#include "peers/virtual-input.h"
#include "platform/bus-call.h"
#include "platform/bus-proxy.h"
#include "platform/log.h"

#include <utility>

namespace {

constexpr BusService service{.name = "com.norv.PTZ.Coordinator",
                             .path = "/com/norv/PTZ/Coordinator/1",
                             .interface_name = "com.norv.PTZ.Coordinator",
                             .flags = G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START};

GDBusProxy* coordinator = nullptr;
/// Cancelled when nobody waits for the proxy any more.
GCancellable* making = nullptr;
/// Called once, when the state of the start is taken in.
void (*coordinator_met)() = nullptr;
BusOwnerWatch owner_watch;

PtzState state_of(bool enabled) {
  return enabled ? PtzState::Enabled : PtzState::Disabled;
}

void apply_current_state() {
  bool enabled = false;
  const bool known =
      bus_has_owner(coordinator) && bus_cached_boolean(coordinator, "PTZEnabled", &enabled);
  virtual_input_set_ptz_enabled(known ? state_of(enabled) : PtzState::Unknown);
}

void tell_met() {
  if (const auto tell = std::exchange(coordinator_met, nullptr); tell != nullptr) {
    tell();
  }
}

void on_owner_changed(gpointer /*user_data*/) {
  apply_current_state();
  tell_met();
}

void on_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
               GVariant* arguments, gpointer /*user_data*/) {
  if (!bus_signal_is(signal, arguments, "PtzEnabledChanged", "(ib)")) {
    return;
  }
  gboolean enabled = FALSE;
  g_variant_get(arguments, "(ib)", nullptr, &enabled);
  virtual_input_set_ptz_enabled(state_of(enabled != FALSE));
}

void on_made(GDBusProxy* proxy, const GError* error, gpointer /*user_data*/) {
  if (proxy == nullptr) {
    g_warning("%sError creating proxy: %s\n", log_prefix, error->message);
    tell_met();
    return;
  }
  coordinator = proxy;
  owner_watch.start(coordinator, on_owner_changed, nullptr);
  g_signal_connect(coordinator, "g-signal", G_CALLBACK(on_signal), nullptr);
  owner_watch.note_change();
}

} // namespace

void coordinator_dbus_init(void (*met)()) {
  coordinator_met = met;
  making = g_cancellable_new();
  bus_proxy_make(service, making, on_made, nullptr);
}

void coordinator_dbus_finalize() {
  coordinator_met = nullptr;
  g_cancellable_cancel(making);
  g_clear_object(&making);
  owner_watch.stop();
  if (coordinator != nullptr) {
    g_signal_handlers_disconnect_matched(coordinator, G_SIGNAL_MATCH_DATA, 0, 0, nullptr, nullptr,
                                         nullptr);
    g_clear_object(&coordinator);
  }
}
