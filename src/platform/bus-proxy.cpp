#include "platform/bus-proxy.h"

#include "platform/bus-call.h"
#include "platform/bus-connection.h"
#include "platform/callbacks.h"
#include "platform/flags.h"
#include "platform/hung-services.h"
#include "platform/log.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace {

constexpr const char* get_all = "org.freedesktop.DBus.Properties.GetAll";
constexpr const char* all_type = "(a{sv})";

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
};

void none_made(const BusProxyMade& made, const GError* error) {
  g_warning("%sError creating proxy: %s\n", log_prefix, error->message);
  made(nullptr);
}

void on_made(Making* data, GObject* /*source*/, GAsyncResult* result) {
  const std::unique_ptr<Making> making(data);
  g_autoptr(GError) error = nullptr;
  ObjectRef<GDBusProxy> proxy(g_dbus_proxy_new_finish(result, &error));
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  if (proxy != nullptr) {
    making->made(std::move(proxy));
    return;
  }
  if (making->begun) {
    hung_service_call_failed(making->name.c_str(), *making->begun, ServiceName::Unowned, error);
  }
  none_made(making->made, error);
}

struct Question {
  guint64 begun;
  std::function<void()> answered;
};

// A question that was given up ends here, too, perhaps after whoever had asked it.
void on_properties(Question* data, GObject* source, GAsyncResult* result) {
  const std::unique_ptr<Question> question(data);
  GDBusProxy* const proxy = G_DBUS_PROXY(source);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GVariant) reply = g_dbus_proxy_call_finish(proxy, result, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
    return;
  }
  if (error != nullptr) {
    hung_service_call_failed(g_dbus_proxy_get_name(proxy), question->begun, ServiceName::Owned,
                             error);
  }
  keep_properties(proxy, reply);
  question->answered();
}

// Makes a proxy that asks nothing by itself but, perhaps, to have the service started.
GDBusProxy* new_proxy(const BusService& service, GDBusProxyFlags start, GError** error) {
  GDBusConnection* const connection = bus_connection(error);
  if (connection == nullptr) {
    return nullptr;
  }
  hung_service_follow(connection, service.name);
  GMainContext* const context = bus_connection_context();
  g_main_context_push_thread_default(context);
  GDBusProxy* const proxy = g_dbus_proxy_new_sync(
      connection, flags(service.flags, start, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES), nullptr,
      service.name, service.path, service.interface_name, nullptr, error);
  g_main_context_pop_thread_default(context);
  return proxy;
}

// One that has the service started, unless its flags say otherwise.
GDBusProxy* new_starting_proxy(const BusService& service, guint64 begun, GError** error) {
  g_autoptr(GError) failure = nullptr;
  GDBusProxy* const proxy = new_proxy(service, G_DBUS_PROXY_FLAGS_NONE, &failure);
  if (proxy == nullptr) {
    hung_service_call_failed(service.name, begun, ServiceName::Unowned, failure);
    g_propagate_error(error, g_steal_pointer(&failure));
  }
  return proxy;
}

struct Hearing {
  BusSignal signal;
  std::function<void(GVariant* arguments)> heard;
};

void on_signal(Hearing* hearing, GDBusProxy* /*proxy*/, const gchar* /*sender*/, const gchar* name,
               GVariant* arguments) {
  if (g_str_equal(name, hearing->signal.name)
      && g_variant_is_of_type(arguments, G_VARIANT_TYPE(hearing->signal.type))) {
    hearing->heard(arguments);
  }
}

using Following = std::function<void()>;

void on_owner(Following* changed) {
  (*changed)();
}

// The connection owns the data: a handler may disconnect itself while it runs.
template <typename Data>
SignalHandler connect(GDBusProxy* proxy, const char* signal, GCallback called, Data* data) {
  return {proxy,
          g_signal_connect_data(
              proxy, signal, called, data,
              [](gpointer owned, GClosure*) { delete_data<Data>(owned); }, G_CONNECT_DEFAULT)};
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

void bus_proxy_make(const BusService& service, GCancellable* cancellable, BusProxyMade made) {
  g_autoptr(GError) error = nullptr;
  GDBusConnection* const connection = bus_connection(&error);
  if (connection == nullptr) {
    none_made(made, error);
    return;
  }
  hung_service_follow(connection, service.name);
  auto making = std::make_unique<Making>(Making{.name = service.name,
                                                .begun = hung_service_begin_call(service.name),
                                                .made = std::move(made)});
  const auto start = making->begun ? G_DBUS_PROXY_FLAGS_NONE
                                   : G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION;
  g_dbus_proxy_new(connection,
                   flags(service.flags, start, G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES), nullptr,
                   service.name, service.path, service.interface_name, cancellable,
                   callback<on_made>, making.release());
}

void bus_proxy_ask(GDBusProxy* proxy, GCancellable* cancellable, std::function<void()> answered) {
  constexpr gint default_timeout = -1;
  const auto begun =
      bus_has_owner(proxy) ? hung_service_begin_call(g_dbus_proxy_get_name(proxy)) : std::nullopt;
  if (!begun) {
    answered();
    return;
  }
  auto question =
      std::make_unique<Question>(Question{.begun = *begun, .answered = std::move(answered)});
  g_dbus_proxy_call(proxy, get_all, get_all_arguments(proxy), G_DBUS_CALL_FLAGS_NONE,
                    default_timeout, cancellable, callback<on_properties>, question.release());
}

SignalHandler bus_proxy_hear(GDBusProxy* proxy, const BusSignal& signal,
                             std::function<void(GVariant* arguments)> heard) {
  void (*const called)(GDBusProxy*, const gchar*, const gchar*, GVariant*, gpointer) =
      callback<on_signal>;
  return connect(proxy, "g-signal", G_CALLBACK(called),
                 new Hearing{.signal = signal, .heard = std::move(heard)});
}

SignalHandler bus_proxy_follow_owner(GDBusProxy* proxy, std::function<void()> changed) {
  void (*const called)(GDBusProxy*, GParamSpec*, gpointer) = callback<on_owner>;
  return connect(proxy, "notify::g-name-owner", G_CALLBACK(called),
                 new Following(std::move(changed)));
}

void BusOwnerWatch::start(GDBusProxy* proxy, std::function<void()> changed) {
  stop();
  proxy_ = proxy;
  changed_ = std::move(changed);
  handler_ = bus_proxy_follow_owner(proxy, [this] { note_change(); });
}

void BusOwnerWatch::stop() {
  question_.give_up();
  handler_.reset();
}

void BusOwnerWatch::note_change() {
  forget_properties(proxy_);
  bus_proxy_ask(proxy_, question_.begin(), [this] { changed_(); });
}
