// The daemon as a whole: com.norv.IOControl.Manager1, served under the name of port control.
#pragma once

#include <gio/gio.h>

/// Publishes the object. Errors of the port control domain must be registered.
void manager_publish(GDBusConnection* connection);

/// Announces which ports are in service now, here and to the service manager. Main thread.
void manager_tell_ports();

/// Takes the object off the bus.
void manager_unpublish();
