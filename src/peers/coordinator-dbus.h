// Follows the PTZ coordinator: whether pan-tilt-zoom is enabled.
#pragma once

/// Waits for nobody: the coordinator's state is taken in from the main loop once it is known. `met`
/// is called after that, once, or when there can be no coordinator.
void coordinator_dbus_init(void (*met)());
void coordinator_dbus_finalize();
