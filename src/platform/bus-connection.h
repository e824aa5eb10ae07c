// The connections to the system bus. The bus knows a connection for good by the user that opened
// it, so the start, which may ask other services as root, has one of its own. The shared one, which
// carries the daemon's names, is opened by the user that the daemon has become.
//
// Main thread only.
#pragma once

#include <gio/gio.h>

#include <functional>

/// The connection over which other services are reached: until bus_connection_share() the start's
/// own, opened when first asked for, then the shared one. Owned by this module; NULL with `error`
/// without a bus.
[[nodiscard]] GDBusConnection* bus_connection(GError** error);

/// What proxies on bus_connection() are to be made in: signals that come over the start's
/// connection wait in this context, all others in the default one (NULL).
[[nodiscard]] GMainContext* bus_connection_context();

/// From here on the shared connection is the one. To be called by the user that is to own the
/// daemon's names. `lost` is called from the main loop when the bus has closed the connection; the
/// process goes on. False when the bus of the start is lost already, after `lost` was called for
/// that; a start that met no bus and needed none goes on without.
[[nodiscard]] bool bus_connection_share(std::function<void()> lost);

/// The shared connection, whatever bus_connection() is at the moment.
[[nodiscard]] GDBusConnection* bus_connection_shared(GError** error);

/// Dispatches what came over the start's connection until now.
void bus_connection_serve_start();

/// Lets go of the start's connection; nobody may use it any more.
void bus_connection_leave_start();
