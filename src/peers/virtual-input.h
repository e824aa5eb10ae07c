// Manual-trigger ports for the device's video channels: which exist and which are enabled.
#pragma once

/// State of pan-tilt-zoom.
enum class PtzState {
  Disabled = 0,
  Enabled = 1,
  /// The coordinator is absent or does not tell; channels are followed as they come.
  Unknown = 2,
};

/// Starts to follow video channels and PTZ, if the hardware description asks for it.
void virtual_input_init();

/// Disables the trigger ports and stops to follow the peers.
void virtual_input_finalize();

/// A channel (1-based) was enabled or disabled.
void virtual_input_set_channel_enabled(int channel, bool enabled);

/// PTZ changed.
void virtual_input_set_ptz_enabled(PtzState state);
