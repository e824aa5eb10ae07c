#include "peers/coordinator-dbus.h"

#include "peers/virtual-input.h"
#include "platform/bus-call.h"
#include "platform/log.h"

#include <utility>

namespace {

constexpr BusService service{.name = "com.norv.PTZ.Coordinator",
                             .path = "/com/norv/PTZ/Coordinator/1",
                             .interface_name = "com.norv.PTZ.Coordinator",
                             .flags = G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START};

PtzState state_of(bool enabled) {
  return enabled ? PtzState::Enabled : PtzState::Disabled;
}

void on_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
               GVariant* arguments, gpointer user_data) {
  if (!bus_signal_is(signal, arguments, "PtzEnabledChanged", "(ib)")) {
    return;
  }
  gboolean enabled = FALSE;
  g_variant_get(arguments, "(ib)", nullptr, &enabled);
  static_cast<VirtualInput*>(user_data)->set_ptz_enabled(state_of(enabled != FALSE));
}

} // namespace

void CoordinatorDbus::init(std::function<void()> met) {
  met_ = std::move(met);
  bus_proxy_make(
      service, making_.begin(),
      [](GDBusProxy* proxy, const GError* error, gpointer user_data) {
        auto* const coordinator = static_cast<CoordinatorDbus*>(user_data);
        if (proxy == nullptr) {
          g_warning("%sError creating proxy: %s\n", log_prefix, error->message);
          coordinator->tell_met();
          return;
        }
        coordinator->on_made(proxy);
      },
      this);
}

void CoordinatorDbus::on_made(GDBusProxy* proxy) {
  coordinator_.reset(proxy);
  owner_watch_.start(proxy, [this] {
    apply_current_state();
    tell_met();
  });
  handler_ = SignalHandler(proxy, "g-signal", G_CALLBACK(on_signal), &input_);
  owner_watch_.note_change();
}

void CoordinatorDbus::apply_current_state() {
  bool enabled = false;
  const bool known = bus_has_owner(coordinator_.get())
                     && bus_cached_boolean(coordinator_.get(), "PTZEnabled", &enabled);
  input_.set_ptz_enabled(known ? state_of(enabled) : PtzState::Unknown);
}

void CoordinatorDbus::tell_met() {
  if (const auto tell = std::exchange(met_, nullptr)) {
    tell();
  }
}
