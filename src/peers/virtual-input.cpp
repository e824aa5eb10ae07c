#include "peers/virtual-input.h"

#include "port/action-sequence.h"
#include "port/ioport-list.h"

#include <algorithm>
#include <utility>

// The channels' peers go after this, and with them the ports.
VirtualInput::~VirtualInput() {
  for (const int channel : std::exchange(enabled_channels_, {})) {
    update_trigger(channel);
  }
}

// Nobody waits for the peers, but they are met in this order: the channels while PTZ counts as
// disabled, then the coordinator, and only then a streamer that came or went meanwhile.
void VirtualInput::init() {
  if (virtual_input_in_use()) {
    streamer_.init([this] { coordinator_.init([this] { streamer_.follow(); }); });
  }
}

bool VirtualInput::is_listed(int channel) const {
  return std::ranges::find(enabled_channels_, channel) != enabled_channels_.end();
}

// Without PTZ the device is seen as one channel, and an existing port is left as it is.
void VirtualInput::update_trigger(int channel) const {
  const bool ptz = ptz_state_ != PtzState::Disabled;
  const bool enabled = ptz ? is_listed(channel) : channel == 1;
  const std::string name = "manualtrigger" + std::to_string(channel);
  IoPortRef port = io_port_list_get_by_name(name.c_str());
  if (port == nullptr) {
    port = io_port_create_manual_trigger(channel);
    io_port_set_enabled(port.get(), enabled);
    io_port_list_add(port.get());
  } else if (ptz) {
    io_port_set_enabled(port.get(), enabled);
  }
}

void VirtualInput::set_channel_enabled(int channel, bool enabled) {
  if (!enabled) {
    std::erase(enabled_channels_, channel);
  } else if (!is_listed(channel)) {
    enabled_channels_.push_back(channel);
  }
  update_trigger(channel);
}

void VirtualInput::set_ptz_enabled(PtzState state) {
  ptz_state_ = state;
  if (state == PtzState::Disabled || enabled_channels_.empty()) {
    set_channel_enabled(1, true);
    return;
  }
  for (const int channel : enabled_channels_) {
    update_trigger(channel);
  }
}
