// Manual-trigger ports for the device's video channels: which exist and which are enabled.
#pragma once

#include "peers/coordinator-dbus.h"
#include "peers/streamer-dbus.h"

#include <vector>

/// State of pan-tilt-zoom.
enum class PtzState {
  Disabled = 0,
  Enabled = 1,
  /// The coordinator is absent or does not tell; channels are followed as they come.
  Unknown = 2,
};

/// Main thread only. Its end disables the trigger ports.
class VirtualInput {
public:
  VirtualInput() = default;
  ~VirtualInput();
  VirtualInput(const VirtualInput&) = delete;
  VirtualInput& operator=(const VirtualInput&) = delete;

  /// Starts to follow video channels and PTZ, if the hardware description asks for it.
  void init();

  /// A channel (1-based) was enabled or disabled.
  void set_channel_enabled(int channel, bool enabled);

  /// PTZ changed.
  void set_ptz_enabled(PtzState state);

private:
  [[nodiscard]] bool is_listed(int channel) const;
  void update_trigger(int channel) const;

  /// In the order in which they were enabled; each at most once.
  std::vector<int> enabled_channels_;
  PtzState ptz_state_ = PtzState::Disabled;
  CoordinatorDbus coordinator_{*this};
  StreamerDbus streamer_{*this};
};
