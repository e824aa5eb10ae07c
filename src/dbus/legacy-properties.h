// The properties of the legacy interface: one row each, for reading and writing.
#pragma once

#include <gio/gio.h>

#include <span>

struct IoPort;

/// One property of one interface.
struct LegacyProperty {
  const char* interface_name;
  const char* name;
  /// Type as declared, and as written.
  const char* signature;
  /// Value of the device as a whole; such a property needs no port. Else nullptr.
  GVariant* (*read_device)();
  /// Value of a port, or nullptr when the property has none for it.
  GVariant* (*read)(IoPort* port, const char* interface_name);
  /// Writes, saves and returns true; false with `error` when refused. nullptr: read-only.
  bool (*write)(IoPort* port, const LegacyProperty& property, const char* interface_name,
                GVariant* value, GError** error);
};

std::span<const LegacyProperty> legacy_properties();

/// Tells the configuration-event service the present counts of inputs and outputs.
using SendPortCounts = void (*)();
void legacy_properties_set_send_port_counts(SendPortCounts send);

/// Reads a property of the object at `path`; nullptr with `error` when there is no value.
GVariant* legacy_property_get(const char* path, const char* interface_name, const char* name,
                              GError** error);

/// Writes a property of the object at `path`; false with `error` when refused.
bool legacy_property_set(const char* path, const char* interface_name, const char* name,
                         GVariant* value, GError** error);
