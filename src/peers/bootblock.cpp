#include "peers/bootblock.h"

#include "platform/bus-call.h"
#include "platform/bus-proxy.h"
#include "platform/log.h"

#include <gio/gio.h>

namespace {

constexpr BusService service{.name = "com.norv.PolicyKitSystem",
                             .path = "/com/norv/PolicyKitSystem",
                             .interface_name = "com.norv.PolicyKitSystem"};

} // namespace

void bootblock_read_param(const char* name, gchar** value) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDBusProxy) proxy = bus_proxy_new(service, &error);
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
