// What our event libraries keep of a declaration and of an event.
#pragma once

#include "platform/event-library.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct EventKey {
  std::string name;
  NvEventType type;
  std::optional<std::string> value = std::nullopt;
  std::string name_space = {};
  std::vector<std::string> tags = {};
  std::optional<std::string> key_nice_name = std::nullopt;
  std::optional<std::string> value_nice_name = std::nullopt;
};

struct NvEventInspectable {
  std::vector<EventKey> keys;
  /// A type without a key list takes whatever key it is given.
  bool open = false;

  EventKey* find(const char* name) {
    const auto found = std::ranges::find(keys, std::string_view(name), &EventKey::name);
    return found != keys.end() ? &*found : nullptr;
  }

  EventKey* find_or_add(const char* name, NvEventType type) {
    EventKey* const key = find(name);
    if (key != nullptr || !open) {
      return key;
    }
    return &keys.emplace_back(EventKey{.name = name, .type = type});
  }
};

struct NvEventDeclaration {
  std::string type_name;
  NvEventInspectable contents = {};
  std::optional<std::string> property = std::nullopt;
  NvEventFill fill = nullptr;
  gpointer user_data = nullptr;
};

struct NvEvent {
  guint id;
  std::string type_name;
  NvEventInspectable contents;
};
