// The supervision service: com.norv.IOSupervised.Supervised on the system bus.
#pragma once

#include "platform/handles.h"

#include <memory>

struct IoSupervised;

/// Takes the service off the bus and releases its name.
void iosupervised_unreg_dbus(IoSupervised* service);

using IoSupervisedOwner = std::unique_ptr<IoSupervised, FreeWith<iosupervised_unreg_dbus>>;

/// Takes the service's bus name and publishes it once the bus is there.
[[nodiscard]] IoSupervisedOwner iosupervised_init_dbus();
