#include "peers/coordinator-dbus.h"

#include "peers/virtual-input.h"
#include "platform/bus-call.h"

#include <utility>

namespace {

constexpr BusSignal ptz_enabled_changed{.name = "PtzEnabledChanged", .type = "(ib)"};
constexpr BusService service{.name = "com.norv.PTZ.Coordinator",
                             .path = "/com/norv/PTZ/Coordinator/1",
                             .interface_name = "com.norv.PTZ.Coordinator",
                             .flags = G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START};

PtzState state_of(bool enabled) {
  return enabled ? PtzState::Enabled : PtzState::Disabled;
}

} // namespace

void CoordinatorDbus::init(std::function<void()> met) {
  met_ = std::move(met);
  bus_proxy_make(service, making_.begin(),
                 [this](ObjectRef<GDBusProxy> proxy) { on_made(std::move(proxy)); });
}

void CoordinatorDbus::on_made(ObjectRef<GDBusProxy> proxy) {
  if (proxy == nullptr) {
    tell_met();
    return;
  }
  coordinator_ = std::move(proxy);
  owner_watch_.start(coordinator_.get(), [this] {
    apply_current_state();
    tell_met();
  });
  handler_ = bus_proxy_hear(coordinator_.get(), ptz_enabled_changed, [this](GVariant* arguments) {
    gboolean enabled = FALSE;
    g_variant_get(arguments, "(ib)", nullptr, &enabled);
    input_.set_ptz_enabled(state_of(enabled != FALSE));
  });
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
