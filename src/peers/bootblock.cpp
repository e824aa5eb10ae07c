#include "peers/bootblock.h"

#include "platform/bus-call.h"
#include "platform/log.h"

#include <gio/gio.h>

namespace {

constexpr const char* bus_name = "com.norv.PolicyKitSystem";
constexpr const char* object_path = "/com/norv/PolicyKitSystem";
constexpr const char* interface_name = "com.norv.PolicyKitSystem";

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
  g_autoptr(GVariant) reply = bus_call(proxy, "ReadBootblockParam", g_variant_new("(s)", name),
                                       G_VARIANT_TYPE("(s)"), &error);
  if (reply == nullptr) {
    g_info("%sFailed to request policykit system: %s", log_prefix, error->message);
    return;
  }
  g_variant_get(reply, "(s)", value);
}
