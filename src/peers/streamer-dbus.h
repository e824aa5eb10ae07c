// Follows the video streamer: which channels exist and whether each is enabled.
#pragma once

void streamer_dbus_init();
void streamer_dbus_finalize();
