#include "platform/bus-call.h"

#include "platform/hung-services.h"

namespace {

GVariant* call_unless_hung(GDBusProxy* proxy, const char* method, GVariant* arguments,
                           GError** error) {
  constexpr gint default_timeout = -1;
  const char* const service = g_dbus_proxy_get_name(proxy);
  const auto begun = hung_service_begin_call(service);
  if (!begun) {
    hung_service_set_error(error);
    return nullptr;
  }
  g_autoptr(GError) failure = nullptr;
  GVariant* const reply = g_dbus_proxy_call_sync(proxy, method, arguments, G_DBUS_CALL_FLAGS_NONE,
                                                 default_timeout, nullptr, &failure);
  if (reply == nullptr) {
    hung_service_call_failed(
        service, *begun, bus_has_owner(proxy) ? ServiceName::Owned : ServiceName::Unowned, failure);
    g_propagate_error(error, g_steal_pointer(&failure));
  }
  return reply;
}

} // namespace

GVariant* bus_call(GDBusProxy* proxy, const char* method, GVariant* arguments,
                   const GVariantType* reply_type, GError** error) {
  // A proxy that refuses the call because its name has no owner leaves floating arguments alone.
  g_autoptr(GVariant) held = arguments != nullptr ? g_variant_ref_sink(arguments) : nullptr;
  g_autoptr(GVariant) reply = call_unless_hung(proxy, method, held, error);
  if (reply == nullptr) {
    return nullptr;
  }
  if (reply_type != nullptr && !g_variant_is_of_type(reply, reply_type)) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_SIGNATURE,
                "Unexpected reply of type '%s' from %s", g_variant_get_type_string(reply), method);
    return nullptr;
  }
  return g_steal_pointer(&reply);
}

bool bus_cached_boolean(GDBusProxy* proxy, const char* property, bool* value) {
  g_autoptr(GVariant) cached = g_dbus_proxy_get_cached_property(proxy, property);
  if (cached == nullptr || !g_variant_is_of_type(cached, G_VARIANT_TYPE_BOOLEAN)) {
    return false;
  }
  *value = g_variant_get_boolean(cached) != FALSE;
  return true;
}

bool bus_has_owner(GDBusProxy* proxy) {
  g_autofree gchar* owner = g_dbus_proxy_get_name_owner(proxy);
  return owner != nullptr;
}
