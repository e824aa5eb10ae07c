// The legacy configuration interface: each port's settings as properties in the older per-port
// object layout, on a connection and under a bus name of its own.
#pragma once

#include "platform/handles.h"

#include <memory>

struct LegacyCtrl;

/// Takes everything back.
void iocontrol_conf_legacy_dbus_destroy(LegacyCtrl* ctrl);

using LegacyCtrlOwner = std::unique_ptr<LegacyCtrl, FreeWith<iocontrol_conf_legacy_dbus_destroy>>;

/// Publishes the objects of all ports and takes the name; there must be one at a time. Failing to
/// reach the bus, register an object or ask for the name ends the process.
[[nodiscard]] LegacyCtrlOwner iocontrol_conf_legacy_dbus_create();
