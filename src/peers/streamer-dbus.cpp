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

void on_channel_signal(GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* signal,
                       GVariant* arguments, gpointer user_data) {
  if (!bus_signal_is(signal, arguments, "EnabledChanged", "(b)")) {
    return;
  }
  gboolean enabled = FALSE;
  g_variant_get(arguments, "(b)", &enabled);
  virtual_input_set_channel_enabled(GPOINTER_TO_INT(user_data), enabled != FALSE);
}

GDBusProxy* new_proxy(const std::string& path, GDBusProxyFlags flags) {
  g_autoptr(GError) error = nullptr;
  GDBusProxy* const proxy = bus_proxy_new(
      {.name = bus_name, .path = path.c_str(), .interface_name = interface_name, .flags = flags},
      &error);
  if (proxy == nullptr) {
    g_warning("%sError creating proxy: %s\n", log_prefix, error->message);
  }
  return proxy;
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

void enumerate_channels() {
  for (int channel = 1; channel <= most_channels; channel++) {
    GDBusProxy* const proxy =
        new_proxy(std::string(base_path) + '/' + std::to_string(channel), G_DBUS_PROXY_FLAGS_NONE);
    if (proxy == nullptr) {
      return;
    }
    if (!is_channel(proxy)) {
      g_object_unref(proxy);
      return;
    }
    follow_channel(proxy, channel);
  }
  g_warning("%sMore than %d video channels, not asking on", log_prefix, most_channels);
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

void on_owner_changed(GDBusProxy* proxy, GParamSpec* /*property*/, gpointer /*user_data*/) {
  // A new owner may take the place of another without a moment between.
  drop_channels();
  if (bus_has_owner(proxy)) {
    enumerate_channels();
  }
}

} // namespace

void streamer_dbus_init() {
  constexpr auto flags = static_cast<GDBusProxyFlags>(G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES
                                                      | G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START);
  owner_watch = new_proxy(base_path, flags);
  if (owner_watch == nullptr) {
    return;
  }
  g_signal_connect(owner_watch, "notify::g-name-owner", G_CALLBACK(on_owner_changed), nullptr);
  if (bus_has_owner(owner_watch)) {
    enumerate_channels();
  }
}

void streamer_dbus_finalize() {
  drop_channels();
  if (owner_watch != nullptr) {
    g_signal_handlers_disconnect_matched(owner_watch, G_SIGNAL_MATCH_FUNC, 0, 0, nullptr,
                                         reinterpret_cast<gpointer>(on_owner_changed), nullptr);
    g_clear_object(&owner_watch);
  }
}
