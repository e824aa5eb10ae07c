#include "peers/streamer-dbus.h"

#include "peers/virtual-input.h"
#include "platform/bus-call.h"
#include "platform/bus-proxy.h"
#include "platform/log.h"
#include "port/ioport-list.h"

#include <list>
#include <string>

namespace {

constexpr const char* bus_name = "com.norv.Streamer";
constexpr const char* base_path = "/com/norv/Streamer/Video/Channel";
constexpr const char* interface_name = "com.norv.Streamer.Video.Channel";

/// A streamer that has more is broken, and asking on would never end.
constexpr int most_channels = 1024;

struct ChannelProxy {
  GDBusProxy* proxy;
  /// One above the channel. The port of that number is what goes with the entry.
  int stored_number;
};

/// Tells of the streamer's coming and going.
GDBusProxy* owner_watch = nullptr;
std::list<ChannelProxy> channel_proxies;
/// Of what is under way: a proxy that is made, or a channel that is asked. Cancelled when the
/// streamer goes, because all of it belongs to that one.
GCancellable* under_way = nullptr;
/// The channel that is asked, and its number.
GDBusProxy* asked = nullptr;
int asked_channel = 0;
/// Called once, at the end of the first meeting.
void (*channels_met)() = nullptr;
/// Whether owners are followed, or a change is only noted.
bool following = false;
bool owner_changed = false;

void on_channel_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
                       GVariant* arguments, gpointer user_data) {
  if (!bus_signal_is(signal, arguments, "EnabledChanged", "(b)")) {
    return;
  }
  gboolean enabled = FALSE;
  g_variant_get(arguments, "(b)", &enabled);
  virtual_input_set_channel_enabled(GPOINTER_TO_INT(user_data), enabled != FALSE);
}

void give_up() {
  g_cancellable_cancel(under_way);
  g_clear_object(&under_way);
  g_clear_object(&asked);
}

void make_proxy(const std::string& path, GDBusProxyFlags flags, BusProxyMade made) {
  give_up();
  under_way = g_cancellable_new();
  bus_proxy_make(
      {.name = bus_name, .path = path.c_str(), .interface_name = interface_name, .flags = flags},
      under_way, made, nullptr);
}

bool is_made(GDBusProxy* proxy, const GError* error) {
  if (proxy == nullptr) {
    g_warning("%sError creating proxy: %s\n", log_prefix, error->message);
  }
  return proxy != nullptr;
}

void tell_channels_met() {
  if (const auto tell = std::exchange(channels_met, nullptr); tell != nullptr) {
    tell();
  }
}

// A path without any property is no channel.
bool is_channel(GDBusProxy* proxy) {
  g_auto(GStrv) properties = g_dbus_proxy_get_cached_property_names(proxy);
  return properties != nullptr;
}

void follow_channel(GDBusProxy* proxy, int channel) {
  bool enabled = true;
  if (bus_cached_boolean(proxy, "Enabled", &enabled)) {
    virtual_input_set_channel_enabled(channel, enabled);
    g_signal_connect(proxy, "g-signal", G_CALLBACK(on_channel_signal), GINT_TO_POINTER(channel));
  } else {
    virtual_input_set_channel_enabled(channel, true);
  }
  channel_proxies.push_back({.proxy = proxy, .stored_number = channel + 1});
}

void meet_channel(int channel);

void on_channel_answered(gpointer /*user_data*/) {
  GDBusProxy* const proxy = std::exchange(asked, nullptr);
  if (!is_channel(proxy)) {
    g_object_unref(proxy);
    tell_channels_met();
    return;
  }
  follow_channel(proxy, asked_channel);
  meet_channel(asked_channel + 1);
}

void on_channel_made(GDBusProxy* proxy, const GError* error, gpointer /*user_data*/) {
  if (!is_made(proxy, error)) {
    tell_channels_met();
    return;
  }
  asked = proxy;
  bus_proxy_ask(asked, under_way, on_channel_answered, nullptr);
}

// One after the other, as the first that is none is the end.
void meet_channel(int channel) {
  if (channel > most_channels) {
    g_warning("%sMore than %d video channels, not asking on", log_prefix, most_channels);
    tell_channels_met();
    return;
  }
  asked_channel = channel;
  make_proxy(std::string(base_path) + '/' + std::to_string(channel), G_DBUS_PROXY_FLAGS_NONE,
             on_channel_made);
}

void meet_channels() {
  if (bus_has_owner(owner_watch)) {
    meet_channel(1);
  } else {
    tell_channels_met();
  }
}

void drop_channels() {
  for (const auto& entry : channel_proxies) {
    const std::string name = "manualtrigger" + std::to_string(entry.stored_number);
    io_port_list_free_by_name(name.c_str());
    g_signal_handlers_disconnect_matched(entry.proxy, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                         reinterpret_cast<gpointer>(on_channel_signal), nullptr);
    g_object_unref(entry.proxy);
  }
  channel_proxies.clear();
}

void meet_anew() {
  // A new owner may take the place of another without a moment between.
  drop_channels();
  meet_channels();
}

void on_owner_changed(GDBusProxy* /*proxy*/, GParamSpec* /*property*/, gpointer /*user_data*/) {
  give_up();
  if (following) {
    meet_anew();
  } else {
    owner_changed = true;
    tell_channels_met();
  }
}

void on_watch_made(GDBusProxy* proxy, const GError* error, gpointer /*user_data*/) {
  if (!is_made(proxy, error)) {
    tell_channels_met();
    return;
  }
  owner_watch = proxy;
  g_signal_connect(owner_watch, "notify::g-name-owner", G_CALLBACK(on_owner_changed), nullptr);
  meet_channels();
}

} // namespace

void streamer_dbus_init(void (*met)()) {
  constexpr auto flags = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES
                                                      | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START);
  channels_met = met;
  following = false;
  owner_changed = false;
  make_proxy(base_path, flags, on_watch_made);
}

void streamer_dbus_follow() {
  following = true;
  if (std::exchange(owner_changed, false)) {
    meet_anew();
  }
}

void streamer_dbus_finalize() {
  channels_met = nullptr;
  give_up();
  drop_channels();
  if (owner_watch != nullptr) {
    g_signal_handlers_disconnect_matched(owner_watch, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                         reinterpret_cast<gpointer>(on_owner_changed), nullptr);
    g_clear_object(&owner_watch);
  }
}
