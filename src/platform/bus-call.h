// Synchronous calls to other services, with replies checked before anyone unpacks them. A service
// that hangs is left alone for a while (hung-services.h); calls fail as if it had been asked.
#pragma once

#include <gio/gio.h>

/// Calls `method` with the default time-out and returns the reply (g_variant_unref). A reply that
/// is not of `reply_type` (nullptr: any) is a failed call. NULL with `error` on failure. A floating
/// `arguments` is consumed in every case.
[[nodiscard]] GVariant* bus_call(GDBusProxy* proxy, const char* method, GVariant* arguments,
                                 const GVariantType* reply_type, GError** error);

/// The proxy's cached boolean property, into `value`; false when it is missing or no boolean.
[[nodiscard]] bool bus_cached_boolean(GDBusProxy* proxy, const char* property, bool* value);

/// Whether somebody owns the proxy's name.
[[nodiscard]] bool bus_has_owner(GDBusProxy* proxy);
