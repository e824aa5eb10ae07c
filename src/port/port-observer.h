// The seam through which the model announces what happened to whoever serves it to the outside.
//
// A service installs its callback when it starts and takes it out when it stops; announcements
// made while a slot is empty go nowhere. Callbacks run on the thread that caused the change, which
// may be an action-sequence thread, and may be called with a port's lock or the port-list mutex
// held: they must neither block on ports nor look ports up.
#pragma once

#include <glib.h>

#include "port/ioport.h"

#include <atomic>
#include <utility>

/// A state that a port took or showed, with what listeners need to judge it.
struct PortChange {
  gint number;
  bool is_virtual;
  bool hidden;
  bool input;
  Trigger trigger;
  bool state;
  /// Of the side in use.
  bool activelow;
};

/// The settings of a port that users see and services announce.
enum class Setting { InputName, OutputName, InputSense, OutputSense, Direction, Usage };

struct PortObserver {
  using PortChanged = void (*)(const PortChange& change);
  using SequenceDone = void (*)(gint port_number);
  using BurstAnnounced = void (*)();
  using SettingChanged = void (*)(const IoPort& port, Setting setting);
  using HardwareGone = void (*)();
  using OutputsWanted = void (*)(gboolean wanted);

  /// A port's state was set or seen.
  std::atomic<PortChanged> port_changed{nullptr};
  /// An action sequence ended, completed or cancelled.
  std::atomic<SequenceDone> sequence_done{nullptr};
  /// Many changes were announced at once, on the calling thread, which holds no lock. The callback
  /// may wait a bounded moment until they have left.
  std::atomic<BurstAnnounced> burst_announced{nullptr};
  /// A setting has a new value, which the port holds already.
  std::atomic<SettingChanged> setting_changed{nullptr};
  /// A port in service has lost its hardware.
  std::atomic<HardwareGone> hardware_gone{nullptr};
  /// Whether the device has an output-capable port; told after every change of the port list.
  std::atomic<OutputsWanted> outputs_wanted{nullptr};
};

/// The process's one observer.
inline PortObserver port_observer;

/// Calls the callback in `slot`, if one is installed, with the given arguments.
template <typename... Parameters, typename... Arguments>
void announce(const std::atomic<void (*)(Parameters...)>& slot, Arguments&&... arguments) {
  if (auto* const callback = slot.load()) {
    callback(std::forward<Arguments>(arguments)...);
  }
}
