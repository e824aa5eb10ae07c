#include "peers/bootblock.h"

#include "platform/log.h"

#include <gio/gio.h>

namespace {

constexpr const char* bus_name = "com.norv.PolicyKitSystem";
constexpr const char* object_path = "/com/norv/PolicyKitSystem";
constexpr const char* interface_name = "com.norv.PolicyKitSystem";
constexpr gint default_timeout = -1;

// A reply of another form is a failed call.
GVariant* call_checked(GDBusProxy* proxy, const char* name, GError** error) {
  g_autoptr(GVariant) reply =
      g_dbus_proxy_call_sync(proxy, "ReadBootblockParam", g_variant_new("(s)", name),
                             G_DBUS_CALL_FLAGS_NONE, default_timeout, nullptr, error);
  if (reply != nullptr && !g_variant_is_of_type(reply, G_VARIANT_TYPE("(s)"))) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_SIGNATURE,
                "unexpected reply of type '%s'", g_variant_get_type_string(reply));
    return nullptr;
  }
  return g_steal_pointer(&reply);
}

} // namespace

void bootblock_read_param(const char* name, gchar** value) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusProxy) proxy =
      g_dbus_proxy_new_for_bus_sync(G_BUS_TYPE_SYSTEM, G_DBUS_PROXY_FLAGS_NONE, nullptr, bus_name,
                                    object_path, interface_name, nullptr, &error);
  if (proxy == nullptr) {
    g_log(G_LOG_DOMAIN, log_level_user, "%sFailed to setup proxy: %s", log_prefix, error->message);
    return;
  }
  g_autoptr(GVariant) reply = call_checked(proxy, name, &error);
  if (reply == nullptr) {
    g_info("%sFailed to request policykit system: %s", log_prefix, error->message);
    return;
  }
  g_variant_get(reply, "(s)", value);
}
