// A message bus of the process's own, with a client on it, and a place for files that nobody else
// sees.
#pragma once

#include "fuzz-support.h"

#include "platform/object-handles.h"

#include <gio/gio.h>

using VariantRef = std::unique_ptr<GVariant, FreeWith<g_variant_unref>>;

/// From here on that bus is the system's for this process.
void fuzz_start_bus();

/// A connection of its own to that bus.
[[nodiscard]] ObjectRef<GDBusConnection> fuzz_connect();

/// Takes an argument tuple of that type from the front of the input, from bytes that may be
/// anything.
[[nodiscard]] VariantRef fuzz_take_arguments(FuzzInput& input, const GVariantType* type);

/// Takes a type that arguments may have, from a few that no method asks for and all that some do.
[[nodiscard]] const GVariantType* fuzz_take_type(FuzzInput& input);

/// Runs the main loop until nothing is left to do, neither here nor on the way.
void fuzz_settle(GDBusConnection* client);

/// Whether the bus library takes it: some types, as that of nothing within something, do not go
/// over the bus.
[[nodiscard]] bool fuzz_can_be_sent(GDBusMessage* message);
