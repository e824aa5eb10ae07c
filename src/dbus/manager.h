// The daemon as a whole: com.norv.IOControl.Manager1, served under the name of port control.
#pragma once

#include "dbus/dbus-handles.h"
#include "dbus/iocontrol-manager-gen.h"

/// On the bus as long as it lives. Main thread.
class Manager {
public:
  /// Errors of the port control domain must be registered. `legacy` is what is told of the names.
  Manager(GDBusConnection* connection, LegacyInterface legacy);
  ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  /// Announces which ports are in service now, here and to the service manager.
  void tell_ports();

private:
  void tell_ports_soon();
  gboolean on_telling();

  ObjectRef<IOControlManager1> skeleton_;
  SourceId telling_;
};
