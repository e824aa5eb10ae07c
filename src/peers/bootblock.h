// Client of the service that reads the device's boot-block parameters.
#pragma once

#include <glib.h>

/// Asks for one parameter, synchronously. `value` receives a new string (g_free) and is left
/// untouched on failure, which is logged.
void bootblock_read_param(const char* name, gchar** value);
