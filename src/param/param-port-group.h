// One port's group in the key file: which keys, in which order, in which form.
#pragma once

#include <glib.h>

struct IoPort;

/// Reads the group into the port; see param_get_conf_vals.
bool param_group_read(GKeyFile* file, IoPort* port);
/// Writes the port into its group; see param_set_conf_vals.
bool param_group_write(GKeyFile* file, IoPort* port);
