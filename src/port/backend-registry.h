// The list of all kinds of port hardware. Declared beside the model, defined in backends/: the
// model knows that backends exist, not which.
#pragma once

#include <glib.h>

#include <span>

struct IoPort;
enum BackendKind : guint;
struct PortFunctions;

/// One kind of port hardware.
struct BackendEntry {
  /// Number of the kind, stored in `IoPort::backend`.
  BackendKind kind;
  /// Name of the kind in the hardware description.
  const char* name;
  /// Returns the backend's static table; makes the port's instance of it if there is none.
  const PortFunctions* (*setup_functions)(IoPort* port);
};

/// All backends of this build.
std::span<const BackendEntry> backend_registry();

/// The entry of that kind, or nullptr.
[[nodiscard]] const BackendEntry* backend_registry_find(guint kind);

/// The entry of that description name (exact comparison), or nullptr.
[[nodiscard]] const BackendEntry* backend_registry_find(const char* name);
