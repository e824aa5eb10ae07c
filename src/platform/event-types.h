// The event types that the stand-in event library knows by name.
#pragma once

#include "platform/event-library.h"

#include <span>

struct EventTypeKey {
  const char* key;
  NvEventType type;
};

struct EventType {
  const char* name;
  /// The type's keys; none means that any key may be filled.
  std::span<const EventTypeKey> keys;
};

/// The type of that name, or nullptr.
[[nodiscard]] const EventType* event_types_find(const char* name);
