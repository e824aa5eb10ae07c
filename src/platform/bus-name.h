// A name of the daemon's on the shared connection.
#pragma once

#include "platform/handles.h"

#include <gio/gio.h>

#include <functional>

/// Asks for the name, which is given up when this goes. Main thread only.
///
/// GLib's own function that takes a bus starts a thread to look the shared connection up. Where
/// there is none to be had it waits for ever, without a word and without a name.
class BusName {
public:
  /// `publish` is called from the main loop, with the connection, right before the bus is asked;
  /// neither happens without a bus.
  BusName(const char* name, std::function<void(GDBusConnection*)> publish);
  BusName(const BusName&) = delete;
  BusName& operator=(const BusName&) = delete;

private:
  gboolean on_loop();

  const char* name_;
  std::function<void(GDBusConnection*)> publish_;
  SourceId waiting_;
  UniqueId<g_bus_unown_name> owned_;
};
