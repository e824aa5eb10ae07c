// A pause in which the bus takes the signals that were sent.
#pragma once

#include <gio/gio.h>

/// Waits, a bounded moment, until the signals that were emitted on the connection so far have left.
/// Any thread that holds no lock.
void signal_flush(GDBusConnection* connection);
