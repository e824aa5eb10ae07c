// The bus library's own thread sees every message first, so a name that is taken counts at once,
// also while the main loop does not run yet or waits for somebody.
#include "platform/hung-services.h"

#include "platform/log.h"
#include "platform/mutex.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace {

struct Service {
  /// How often its name was taken, as far as seen.
  guint64 owners = 0;
  bool left_alone = false;
  /// Until when, on the monotonic clock.
  gint64 end_us = 0;
  /// Whom the bus tells of its owners; for comparison only.
  const GDBusConnection* follower = nullptr;
};

using Services = std::map<std::string, Service, std::less<>>;

Mutex mutex;

// Never freed: the bus library's thread outlives everything.
Services& services() WEXD_REQUIRES(mutex) {
  static auto* const instance = new Services;
  return *instance;
}

Service& service_called(const char* name) WEXD_REQUIRES(mutex) {
  return services()[name];
}

void call_again(const char* name, Service& service) {
  if (service.left_alone) {
    service.left_alone = false;
    g_message("%sCalling %s again", log_prefix, name);
  }
}

void leave_alone(const char* name, Service& service) {
  service.end_us = g_get_monotonic_time() + gint64{hung_service_rest_s} * G_USEC_PER_SEC;
  if (!service.left_alone) {
    service.left_alone = true;
    g_warning("%s%s does not answer, not calling it for %d seconds", log_prefix, name,
              hung_service_rest_s);
  }
}

void name_taken(const char* name) {
  const MutexLock guard(mutex);
  const auto found = services().find(std::string_view(name));
  if (found != services().end()) {
    found->second.owners++;
    call_again(name, found->second);
  }
}

bool tells_owner(GDBusMessage* message) {
  return g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL
         && g_strcmp0(g_dbus_message_get_member(message), "NameOwnerChanged") == 0
         && g_strcmp0(g_dbus_message_get_sender(message), "org.freedesktop.DBus") == 0;
}

GDBusMessage* on_message(GDBusConnection* /*connection*/, GDBusMessage* message, gboolean incoming,
                         gpointer /*user_data*/) {
  GVariant* const body =
      incoming && tells_owner(message) ? g_dbus_message_get_body(message) : nullptr;
  if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(sss)"))) {
    const gchar* name = nullptr;
    const gchar* owner = nullptr;
    g_variant_get(body, "(&s&s&s)", &name, nullptr, &owner);
    if (*owner != '\0') {
      name_taken(name);
    }
  }
  return message;
}

// A service may answer with a time-out of its own, and has answered then. One that cannot be
// started lets the bus's time run out at the same moment as ours.
bool timed_out(const GError* error, ServiceName state) {
  if (state == ServiceName::Unowned
      && g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_TIMED_OUT)) {
    return true;
  }
  return g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT)
         && !g_dbus_error_is_remote_error(error);
}

} // namespace

void hung_services_listen(GDBusConnection* connection) {
  g_dbus_connection_add_filter(connection, on_message, nullptr, nullptr);
}

void hung_service_follow(GDBusConnection* connection, const char* name) {
  {
    const MutexLock guard(mutex);
    if (std::exchange(service_called(name).follower, connection) == connection) {
      return;
    }
  }
  g_dbus_connection_signal_subscribe(
      connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
      "/org/freedesktop/DBus", name, G_DBUS_SIGNAL_FLAGS_NONE,
      [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*, GVariant*,
         gpointer) {},
      nullptr, nullptr);
}

std::optional<guint64> hung_service_begin_call(const char* name) {
  const MutexLock guard(mutex);
  Service& service = service_called(name);
  if (service.left_alone && g_get_monotonic_time() < service.end_us) {
    return std::nullopt;
  }
  call_again(name, service);
  return service.owners;
}

void hung_service_call_failed(const char* name, guint64 begun, ServiceName state,
                              const GError* error) {
  const MutexLock guard(mutex);
  Service& service = service_called(name);
  if (timed_out(error, state) && service.owners == begun) {
    leave_alone(name, service);
  }
}

bool hung_service_is_left_alone(const char* name) {
  const MutexLock guard(mutex);
  const auto found = services().find(std::string_view(name));
  return found != services().end() && found->second.left_alone
         && g_get_monotonic_time() < found->second.end_us;
}

void hung_service_set_error(GError** error) {
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "Timeout was reached");
}
