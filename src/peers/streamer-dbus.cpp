#include "peers/streamer-dbus.h"

#include "peers/virtual-input.h"
#include "platform/bus-call.h"
#include "platform/bus-proxy.h"
#include "platform/log.h"
#include "port/ioport-list.h"

namespace {

constexpr const char* bus_name = "com.norv.Streamer";
constexpr const char* base_path = "/com/norv/Streamer/Video/Channel";
constexpr const char* interface_name = "com.norv.Streamer.Video.Channel";
constexpr BusSignal enabled_changed{.name = "EnabledChanged", .type = "(b)"};

/// A streamer that has more is broken, and asking on would never end.
constexpr int most_channels = 1024;

// A path without any property is no channel.
bool is_channel(GDBusProxy* proxy) {
  g_auto(GStrv) properties = g_dbus_proxy_get_cached_property_names(proxy);
  return properties != nullptr;
}

} // namespace

/// A channel that is followed.
struct StreamerDbus::Channel {
  int number;
  SignalHandler handler;

  /// The port that goes with the channel is the one of the number above.
  [[nodiscard]] std::string port_to_free() const {
    return "manualtrigger" + std::to_string(number + 1);
  }
};

StreamerDbus::StreamerDbus(VirtualInput& input) : input_(input) {}

StreamerDbus::~StreamerDbus() {
  give_up();
  drop_channels();
}

void StreamerDbus::init(std::function<void()> met) {
  channels_met_ = std::move(met);
  make_proxy(base_path, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START, &StreamerDbus::on_watch_made);
}

void StreamerDbus::follow() {
  following_ = true;
  if (std::exchange(owner_changed_, false)) {
    meet_anew();
  }
}

void StreamerDbus::give_up() {
  under_way_.give_up();
  asked_.reset();
}

void StreamerDbus::make_proxy(const std::string& path, GDBusProxyFlags flags, Made made) {
  give_up();
  bus_proxy_make(
      {.name = bus_name, .path = path.c_str(), .interface_name = interface_name, .flags = flags},
      under_way_.begin(), [this, made](ObjectRef<GDBusProxy> proxy) {
        if (proxy == nullptr) {
          tell_channels_met();
        } else {
          (this->*made)(std::move(proxy));
        }
      });
}

void StreamerDbus::tell_channels_met() {
  if (const auto tell = std::exchange(channels_met_, nullptr)) {
    tell();
  }
}

void StreamerDbus::follow_channel(GDBusProxy* proxy, int number) {
  auto& channel = channels_.emplace_back(Channel{.number = number, .handler = {}});
  bool enabled = true;
  if (bus_cached_boolean(proxy, "Enabled", &enabled)) {
    channel.handler = bus_proxy_hear(proxy, enabled_changed, [this, number](GVariant* arguments) {
      gboolean now_enabled = FALSE;
      g_variant_get(arguments, "(b)", &now_enabled);
      input_.set_channel_enabled(number, now_enabled != FALSE);
    });
  }
  input_.set_channel_enabled(number, enabled);
}

void StreamerDbus::on_channel_answered() {
  const ObjectRef<GDBusProxy> proxy = std::move(asked_);
  if (!is_channel(proxy.get())) {
    tell_channels_met();
    return;
  }
  follow_channel(proxy.get(), asked_channel_);
  meet_channel(asked_channel_ + 1);
}

void StreamerDbus::on_channel_made(ObjectRef<GDBusProxy> proxy) {
  asked_ = std::move(proxy);
  bus_proxy_ask(asked_.get(), under_way_.cancellable(), [this] { on_channel_answered(); });
}

// One after the other, as the first that is none is the end.
void StreamerDbus::meet_channel(int channel) {
  if (channel > most_channels) {
    g_warning("%sMore than %d video channels, not asking on", log_prefix, most_channels);
    tell_channels_met();
    return;
  }
  asked_channel_ = channel;
  make_proxy(std::string(base_path) + '/' + std::to_string(channel), G_DBUS_PROXY_FLAGS_NONE,
             &StreamerDbus::on_channel_made);
}

void StreamerDbus::meet_channels() {
  if (bus_has_owner(owner_watch_.get())) {
    meet_channel(1);
  } else {
    tell_channels_met();
  }
}

void StreamerDbus::drop_channels() {
  for (const auto& channel : channels_) {
    io_port_list_free_by_name(channel.port_to_free().c_str());
  }
  channels_.clear();
}

void StreamerDbus::meet_anew() {
  // A new owner may take the place of another without a moment between.
  drop_channels();
  meet_channels();
}

void StreamerDbus::on_owner_changed() {
  give_up();
  if (following_) {
    meet_anew();
  } else {
    owner_changed_ = true;
    tell_channels_met();
  }
}

void StreamerDbus::on_watch_made(ObjectRef<GDBusProxy> proxy) {
  owner_watch_ = std::move(proxy);
  owner_handler_ = bus_proxy_follow_owner(owner_watch_.get(), [this] { on_owner_changed(); });
  meet_channels();
}
