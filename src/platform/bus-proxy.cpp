#include "platform/bus-proxy.h"

#include "platform/bus-call.h"
#include "platform/bus-connection.h"
#include "platform/hung-services.h"

#include <memory>
#include <optional>
#include <string>
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

// What is wanted to know of a proxy that is being made.
struct Making {
  std::string name;
  /// None when the service is left alone.
  std::optional<guint64> begun;
  BusProxyMade made;
  gpointer user_data;
};

void on_made(GObject* /*source*/, GAsyncResult* result, gpointer user_data) {
  const std::unique_ptr<Making> making(static_cast<Making*>(user_data));
  g_autoptr(GError) error = nullptr;
  GDBusProxy* const proxy = g_dbus_proxy_new_finish(result, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  if (proxy == nullptr && making->begun) {
    hung_service_call_failed(making->name.c_str(), *making->begun, false, error);
  }
  making->made(proxy, error, making->user_data);
}

struct Question {
  guint64 begun;
  BusProxyAnswered answered;
  gpointer user_data;
};

// A question that was given up ends here, too, perhaps after whoever had asked it.
void on_properties(GObject* source, GAsyncResult* result, gpointer user_data) {
  const std::unique_ptr<Question> question(static_cast<Question*>(user_data));
  GDBusProxy* const proxy = G_DBUS_PROXY(source);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_proxy_call_finish(proxy, result, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  if (error != nullptr) {
    hung_service_call_failed(g_dbus_proxy_get_name(proxy), question->begun, true, error);
  }
  keep_properties(proxy, reply);
  question->answered(question->user_data);
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

void bus_proxy_make(const BusService& service, GCancellable* cancellable, BusProxyMade made,
                    gpointer user_data) {
  g_autoptr(GError) error = nullptr;
  GDBusConnection* const connection = bus_connection(&error);
  if (connection == nullptr) {
    made(nullptr, error, user_data);
    return;
  }
  hung_service_follow(connection, service.name);
  auto making = std::make_unique<Making>(Making{.name = service.name,
                                                .begun = hung_service_begin_call(service.name),
                                                .made = made,
                                                .user_data = user_data});
  const auto start = making->begun ? G_DBUS_PROXY_FLAGS_NONE
                                   : G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION;
  g_dbus_proxy_new(connection, service.flags | start | G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES,
                   nullptr, service.name, service.path, service.interface_name, cancellable,
                   on_made, making.release());
}

void bus_proxy_ask(GDBusProxy* proxy, GCancellable* cancellable, BusProxyAnswered answered,
                   gpointer user_data) {
  constexpr gint default_timeout = -1;
  const auto begun =
      bus_has_owner(proxy) ? hung_service_begin_call(g_dbus_proxy_get_name(proxy)) : std::nullopt;
  if (!begun) {
    answered(user_data);
    return;
  }
  auto question = std::make_unique<Question>(
      Question{.begun = *begun, .answered = answered, .user_data = user_data});
  g_dbus_proxy_call(proxy, get_all, get_all_arguments(proxy), G_DBUS_CALL_FLAGS_NONE,
                    default_timeout, cancellable, on_properties, question.release());
}

void BusOwnerWatch::start(GDBusProxy* proxy, std::function<void()> changed) {
  stop();
  proxy_ = proxy;
  changed_ = std::move(changed);
  handler_ = SignalHandler(proxy, "notify::g-name-owner",
                           G_CALLBACK(+[](GDBusProxy*, GParamSpec*, gpointer user_data) {
                             static_cast<BusOwnerWatch*>(user_data)->note_change();
                           }),
                           this);
}

void BusOwnerWatch::stop() {
  question_.give_up();
  handler_.reset();
}

void BusOwnerWatch::note_change() {
  forget_properties(proxy_);
  bus_proxy_ask(
      proxy_, question_.begin(),
      [](gpointer user_data) { static_cast<BusOwnerWatch*>(user_data)->changed_(); }, this);
}
