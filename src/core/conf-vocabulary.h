// What each element and attribute of the hardware description does.
#pragma once

#include <string_view>

struct IoEvent;
struct IoPort;

/// What an attribute applies to.
struct ConfTarget {
  IoPort* port;
  /// The port's newest event, or nullptr.
  IoEvent* event;
};

/// Whether the attribute is a name or usage of a port.
[[nodiscard]] bool conf_is_port_text(std::string_view element, std::string_view key);

/// Applies one attribute; unknown elements and attributes are ignored.
void conf_apply_attribute(const ConfTarget& target, const char* element, const char* key,
                          const char* value);
