#include "platform/bus-connection.h"

#include "platform/flags.h"
#include "platform/hung-services.h"
#include "platform/log.h"

#include <utility>

namespace {

/// Main thread only; kept for the life of the process.
struct Connections {
  /// The start's; none where it asks nobody.
  GDBusConnection* start = nullptr;
  GMainContext* start_context = nullptr;
  /// Whether the shared one is the one that counts.
  bool sharing = false;
  GDBusConnection* shared = nullptr;
  std::function<void()> on_lost;
};

Connections& connections() {
  static auto* const instance = new Connections;
  return *instance;
}

// As GLib opens the shared one. Its function for private ones refuses the last of these flags, by
// which users of another name space are let in.
GDBusConnection* open_for_start(GError** error) {
  constexpr auto how = flags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT,
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION,
                             G_DBUS_CONNECTION_FLAGS_CROSS_NAMESPACE);
  g_autofree gchar* address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
  if (address == nullptr) {
    return nullptr;
  }
  return G_DBUS_CONNECTION(g_initable_new(G_TYPE_DBUS_CONNECTION, nullptr, error, "address",
                                          address, "flags", how, nullptr));
}

GDBusConnection* connection_of_start(GError** error) {
  auto& start = connections().start;
  if (start == nullptr) {
    start = open_for_start(error);
    if (start != nullptr) {
      hung_services_listen(start);
    }
  }
  return start;
}

void on_closed(GDBusConnection* /*connection*/, gboolean /*by_peer*/, GError* error,
               gpointer /*user_data*/) {
  g_warning("%sLost the connection to the bus: %s", log_prefix,
            error != nullptr ? error->message : "closed by the bus");
  if (connections().on_lost) {
    connections().on_lost();
  }
}

// The bus answers in the order of what it sent, so with the answer everything before it is here.
void catch_up(GDBusConnection* connection) {
  constexpr gint default_timeout = -1;
  [[maybe_unused]] g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
      connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, default_timeout, nullptr, nullptr);
}

void dispatch_start() {
  GMainContext* const context = connections().start_context;
  while (context != nullptr && g_main_context_iteration(context, FALSE)) {
  }
}

} // namespace

GDBusConnection* bus_connection(GError** error) {
  return connections().sharing ? bus_connection_shared(error) : connection_of_start(error);
}

// Without a word GLib would end the process by a SIGTERM that nobody sent.
GDBusConnection* bus_connection_shared(GError** error) {
  auto& shared = connections().shared;
  if (shared != nullptr) {
    return shared;
  }
  shared = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error);
  if (shared != nullptr) {
    g_dbus_connection_set_exit_on_close(shared, FALSE);
    hung_services_listen(shared);
    g_signal_connect(shared, "closed", G_CALLBACK(on_closed), nullptr);
  }
  return shared;
}

GMainContext* bus_connection_context() {
  auto& [start, context, sharing, shared, on_lost] = connections();
  if (!sharing && context == nullptr) {
    context = g_main_context_new();
  }
  return sharing ? nullptr : context;
}

// Of a bus that ended meanwhile, the calls of the start have told no more than that they failed.
bool bus_connection_share(std::function<void()> lost) {
  auto& [start, context, sharing, shared, on_lost] = connections();
  on_lost = std::move(lost);
  sharing = true;
  g_autoptr(GError) error = nullptr;
  const bool connected = bus_connection_shared(&error) != nullptr;
  if (start == nullptr || (connected && !g_dbus_connection_is_closed(start))) {
    return true;
  }
  on_closed(start, TRUE, error, nullptr);
  return false;
}

void bus_connection_serve_start() {
  if (GDBusConnection* const start = connections().start) {
    catch_up(start);
  }
  dispatch_start();
}

// What is left in the context are the ends of subscriptions, which free what belongs to them.
void bus_connection_leave_start() {
  dispatch_start();
  g_clear_object(&connections().start);
  g_clear_pointer(&connections().start_context, g_main_context_unref);
}
