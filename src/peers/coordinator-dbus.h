// Follows the PTZ coordinator: whether pan-tilt-zoom is enabled.
#pragma once

void coordinator_dbus_init();
void coordinator_dbus_finalize();
