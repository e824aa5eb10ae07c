// The port control service: com.norv.IOControl.State on the system bus, with the daemon as a whole
// and the connectors beside it.
#pragma once

#include "dbus/dbus-handles.h"

#include <memory>

struct IoControl;

/// Takes the service off the bus and releases its names.
void iocontrol_unreg_dbus(IoControl* service);

using IoControlOwner = std::unique_ptr<IoControl, FreeWith<iocontrol_unreg_dbus>>;

/// Takes the bus names of this and the connector service and publishes both once the bus is there.
/// `legacy` is what clients are told of that interface.
[[nodiscard]] IoControlOwner iocontrol_init_dbus(LegacyInterface legacy);
