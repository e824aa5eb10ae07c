// Follows the PTZ coordinator: whether pan-tilt-zoom is enabled.
#pragma once

#include "platform/bus-proxy.h"

#include <functional>

class VirtualInput;

/// Main thread only.
class CoordinatorDbus {
public:
  /// `input` is told of the state and must outlive this.
  explicit CoordinatorDbus(VirtualInput& input) : input_(input) {}

  /// Waits for nobody: the coordinator's state is taken in from the main loop once it is known.
  /// `met` is called after that, once, or when there can be no coordinator.
  void init(std::function<void()> met);

private:
  void on_made(ObjectRef<GDBusProxy> proxy);
  void apply_current_state();
  void tell_met();

  VirtualInput& input_;
  ObjectRef<GDBusProxy> coordinator_;
  SignalHandler handler_;
  BusOwnerWatch owner_watch_;
  UnderWay making_;
  /// Called once, when the state of the start is taken in.
  std::function<void()> met_;
};
