#include "peers/virtual-input.h"

#include "peers/coordinator-dbus.h"
#include "peers/streamer-dbus.h"
#include "platform/mutex.h"
#include "port/action-sequence.h"
#include "port/ioport-list.h"

#include <algorithm>
#include <vector>

namespace {

/// Guards the two below.
Mutex virtual_input_mutex;
/// In the order in which they were enabled; each at most once.
std::vector<int> enabled_channels WEXD_GUARDED_BY(virtual_input_mutex);
PtzState ptz_state WEXD_GUARDED_BY(virtual_input_mutex) = PtzState::Disabled;

// An existing port is left as it is while PTZ is disabled.
void update_trigger(int channel, bool enabled) WEXD_REQUIRES(virtual_input_mutex) {
  const std::string name = "manualtrigger" + std::to_string(channel);
  IoPortRef port = io_port_list_get_by_name(name.c_str());
  if (port == nullptr) {
    port = io_port_create_manual_trigger(channel);
    io_port_set_enabled(port.get(), enabled);
    io_port_list_add(port.get());
  } else if (ptz_state != PtzState::Disabled) {
    io_port_set_enabled(port.get(), enabled);
  }
}

void note_channel(int channel, bool enabled) WEXD_REQUIRES(virtual_input_mutex) {
  const bool listed = std::ranges::find(enabled_channels, channel) != enabled_channels.end();
  if (!enabled) {
    std::erase(enabled_channels, channel);
  } else if (!listed) {
    enabled_channels.push_back(channel);
  }
}

} // namespace

// Nobody waits for the peers, but they are met in this order: the channels while PTZ counts as
// disabled, then the coordinator, and only then a streamer that came or went meanwhile.
void virtual_input_init() {
  if (virtual_input_in_use()) {
    streamer_dbus_init([] { coordinator_dbus_init(streamer_dbus_follow); });
  }
}

void virtual_input_finalize() {
  {
    const MutexLock guard(virtual_input_mutex);
    for (const int channel : enabled_channels) {
      update_trigger(channel, false);
    }
  }
  if (virtual_input_in_use()) {
    streamer_dbus_finalize();
    coordinator_dbus_finalize();
  }
  const MutexLock guard(virtual_input_mutex);
  enabled_channels.clear();
}

void virtual_input_set_channel_enabled(int channel, bool enabled) {
  const MutexLock guard(virtual_input_mutex);
  note_channel(channel, enabled);
  if (ptz_state != PtzState::Disabled) {
    update_trigger(channel, enabled);
  } else {
    // Without PTZ the device is seen as one channel.
    update_trigger(channel, channel == 1);
  }
}

void virtual_input_set_ptz_enabled(PtzState state) {
  {
    const MutexLock guard(virtual_input_mutex);
    ptz_state = state;
    if (state != PtzState::Disabled && !enabled_channels.empty()) {
      for (const int channel : enabled_channels) {
        update_trigger(channel, true);
      }
      return;
    }
  }
  virtual_input_set_channel_enabled(1, true);
}
