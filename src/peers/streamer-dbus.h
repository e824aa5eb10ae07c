// Follows the video streamer: which channels exist and whether each is enabled.
#pragma once

/// Waits for nobody: the channels are met one by one from the main loop. `met` is called once, when
/// the first meeting is over: all channels are met, there is no streamer, or it went meanwhile.
void streamer_dbus_init(void (*met)());
/// From here on the streamer's coming and going counts, also what there was of it since the init.
void streamer_dbus_follow();
void streamer_dbus_finalize();
