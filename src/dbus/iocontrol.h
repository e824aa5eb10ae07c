// The port control service: com.norv.IOControl.State on the system bus.
#pragma once

#include <glib.h>

#include "port/port-observer.h"

/// Takes the bus names of this and the connector service and publishes both once the bus is there.
void iocontrol_init_dbus();

/// Takes both services off the bus and releases their names.
void iocontrol_unreg_dbus();

/// Emits PortChanged; does nothing while the service is not published. Any thread.
void iocontrol_emit_port_changed(const PortChange& change);

/// Emits ActionSequenceDone; does nothing while the service is not published. Any thread.
void iocontrol_emit_action_sequence_done(gint port_number);

/// Whether the legacy configuration interface is in use; true unless switched off at start.
[[nodiscard]] bool use_legacy_interface();
void set_use_legacy_interface(bool use);
