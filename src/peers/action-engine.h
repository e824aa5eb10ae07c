// Keeps the daemon's action templates registered with the device's action engine while the device
// has an output to act on.
#pragma once

#include "platform/object-handles.h"

/// Follows the action engine on the bus as long as it lives; what is registered by then stays so.
/// Main thread only, as every change of the port list.
class ActionengineDbus {
public:
  ActionengineDbus();
  ~ActionengineDbus();
  ActionengineDbus(const ActionengineDbus&) = delete;
  ActionengineDbus& operator=(const ActionengineDbus&) = delete;

private:
  gboolean on_loop();
  void on_name_appeared();
  void on_name_vanished();
  /// Brings the engine in line, if it is there.
  void apply_wish();

  /// None while the engine is absent.
  ObjectRef<GDBusProxy> proxy_;
  /// Whether the templates are to be registered.
  bool wanted_ = false;
  /// The wait for the main loop, in which the watch begins.
  SourceId starting_;
  UniqueId<g_bus_unwatch_name> watch_;
};
