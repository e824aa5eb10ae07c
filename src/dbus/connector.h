// The connector service: com.norv.WXD.Connector on the system bus.
#pragma once

#include <gio/gio.h>

#include "dbus/wxd-connector-gen.h"
#include "platform/object-handles.h"

inline constexpr const char* connector_name = "com.norv.WXD.Connector";

/// Publishes the service, which is there as long as what is returned.
[[nodiscard]] ObjectRef<WXDConnector> connector_publish(GDBusConnection* connection);
