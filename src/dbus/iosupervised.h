// The supervision service: com.norv.IOSupervised.Supervised on the system bus.
#pragma once

/// Takes the service's bus name and publishes it once the bus is there.
void iosupervised_init_dbus();

/// Takes the service off the bus and releases its name.
void iosupervised_unreg_dbus();
