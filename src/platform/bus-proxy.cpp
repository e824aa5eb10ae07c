#include "platform/bus-proxy.h"

#include "platform/bus-call.h"
#include "platform/bus-connection.h"
#include "platform/hung-services.h"

#include <utility>

namespace {

constexpr const char* get_all = "org.freedesktop.DBus.Properties.GetAll";
constexpr const char* all_type = "(a{sv})";

GDBusProxyFlags operator|(GDBusProxyFlags one, GDBusProxyFlags other) {
  return static_cast<GDBusProxyFlags>(static_cast<guint>(one) | static_cast<guint>(other));
}

GVariant* get_all_arguments(GDBusProxy* proxy) {
  return g_variant_new("(s)", g_dbus_proxy_get_interface_name(proxy));
}

void forget_properties(GDBusProxy* proxy) {
  g_auto(GStrv) names = g_dbus_proxy_get_cached_property_names(proxy);
  for (gchar** name = names; name != nullptr && *name != nullptr; name++) {
    g_dbus_proxy_set_cached_property(proxy, *name, nullptr);
  }
}

// What the service told; anything of another form is as good as nothing.
void keep_properties(GDBusProxy* proxy, GVariant* reply) {
  if (reply == nullptr || !g_variant_is_of_type(reply, G_VARIANT_TYPE(all_type))) {
    return;
  }
  g_autoptr(GVariantIter) iter = nullptr;
  g_variant_get(reply, all_type, &iter);
  const gchar* name = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_loop(iter, "{&sv}", &name, &value)) {
    g_dbus_proxy_set_cached_property(proxy, name, value);
  }
}

// Makes a proxy that asks nothing by itself but, perhaps, to have the service started.
GDBusProxy* new_proxy(const BusService& service, GDBusProxyFlags flags, GError** error) {
  GDBusConnection* const connection = bus_connection(error);
  if (connection == nullptr) {
    return nullptr;
  }
  hung_service_follow(connection, service.name);
  GMainContext* const context = bus_connection_context();
  g_main_context_push_thread_default(context);
  GDBusProxy* const proxy = g_dbus_proxy_new_sync(
      connection, service.flags | flags | G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES, nullptr,
      service.name, service.path, service.interface_name, nullptr, error);
  g_main_context_pop_thread_default(context);
  return proxy;
}

// One that has the service started, unless its flags say otherwise.
GDBusProxy* new_starting_proxy(const BusService& service, guint64 begun, GError** error) {
  g_autoptr(GError) failure = nullptr;
  GDBusProxy* const proxy = new_proxy(service, G_DBUS_PROXY_FLAGS_NONE, &failure);
  if (proxy == nullptr) {
    hung_service_call_failed(service.name, begun, false, failure);
    g_propagate_error(error, g_steal_pointer(&failure));
  }
  return proxy;
}

} // namespace

GDBusProxy* bus_proxy_new(const BusService& service, GError** error) {
  const auto begun = hung_service_begin_call(service.name);
  if (!begun) {
    return bus_proxy_renew(service, error);
  }
  GDBusProxy* const proxy = new_starting_proxy(service, *begun, error);
  const bool ask = (service.flags & G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES) == 0;
  if (proxy != nullptr && ask && bus_has_owner(proxy)) {
    g_autoptr(GVariant) reply =
        bus_call(proxy, get_all, get_all_arguments(proxy), nullptr, nullptr);
    keep_properties(proxy, reply);
  }
  return proxy;
}

GDBusProxy* bus_proxy_renew(const BusService& service, GError** error) {
  return new_proxy(service, G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION, error);
}

void BusOwnerWatch::start(GDBusProxy* proxy, Changed changed, gpointer user_data) {
  stop();
  proxy_ = static_cast<GDBusProxy*>(g_object_ref(proxy));
  changed_ = changed;
  user_data_ = user_data;
  handler_ = g_signal_connect_swapped(
      proxy, "notify::g-name-owner",
      G_CALLBACK(+[](BusOwnerWatch* watch) { watch->note_change(); }), this);
}

void BusOwnerWatch::stop() {
  g_cancellable_cancel(question_);
  g_clear_object(&question_);
  if (handler_ != 0) {
    g_signal_handler_disconnect(proxy_, std::exchange(handler_, 0));
  }
  g_clear_object(&proxy_);
}

void BusOwnerWatch::note_change() {
  g_cancellable_cancel(question_);
  g_clear_object(&question_);
  forget_properties(proxy_);
  const auto begun =
      bus_has_owner(proxy_) ? hung_service_begin_call(g_dbus_proxy_get_name(proxy_)) : std::nullopt;
  if (begun) {
    begun_ = *begun;
    ask();
  } else {
    changed_(user_data_);
  }
}

void BusOwnerWatch::ask() {
  constexpr gint default_timeout = -1;
  question_ = g_cancellable_new();
  g_dbus_proxy_call(proxy_, get_all, get_all_arguments(proxy_), G_DBUS_CALL_FLAGS_NONE,
                    default_timeout, question_, on_properties, this);
}

// A question that was given up ends here, too, perhaps after the watch.
void BusOwnerWatch::on_properties(GObject* proxy, GAsyncResult* result, gpointer user_data) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_proxy_call_finish(G_DBUS_PROXY(proxy), result, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  auto* watch = static_cast<BusOwnerWatch*>(user_data);
  g_clear_object(&watch->question_);
  if (error != nullptr) {
    hung_service_call_failed(g_dbus_proxy_get_name(watch->proxy_), watch->begun_, true, error);
  }
  keep_properties(watch->proxy_, reply);
  watch->changed_(watch->user_data_);
}
