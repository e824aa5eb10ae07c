// Placeholder words of the hardware description and the texts that stand for them.
#pragma once

#include "event/event.h"
#include "platform/event-library.h"

#include <string>

/// The type word of a key value as the event library's code, a string without a word; an unknown
/// word is a programming error.
[[nodiscard]] NvEventType event_value_type(const EventKeyValue& key_value);

/// The text that fills the key: the placeholder's meaning for this port now, or the value itself.
/// A placeholder for a double is a programming error.
[[nodiscard]] std::string event_value_text(IoPort* port, const EventKeyValue& key_value);
