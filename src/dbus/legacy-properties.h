// The properties of the legacy interface: one row each, for reading and writing.
#pragma once

#include <gio/gio.h>

#include "port/port-observer.h"

#include <functional>

/// A write of a property.
struct LegacyWrite {
  /// Of the property.
  const char* name;
  GVariant* value;
  /// Set when the write is refused.
  GError** error;
  /// To be called when the device has another number of inputs and outputs by the write.
  const std::function<void()>& port_counts_changed;
};

/// A setting in the words of this interface. `text` is the port's, or NULL for a name that it
/// lacks.
struct LegacySetting {
  const char* interface_name;
  const char* property;
  const char* text;
};
[[nodiscard]] LegacySetting legacy_setting(const IoPort& port, Setting setting);

/// Reads a property of the object at `path`; nullptr with `error` when there is no value.
[[nodiscard]] GVariant* legacy_property_get(const char* path, const char* interface_name,
                                            const char* name, GError** error);

/// Carries out a write to the object at `path`; false, with its error, when refused.
[[nodiscard]] bool legacy_property_set(const char* path, const char* interface_name,
                                       const LegacyWrite& write);
