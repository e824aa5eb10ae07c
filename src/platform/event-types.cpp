// A device has its own list of event types; this one serves descriptions on a simulated device.
#include "platform/event-types.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr std::array manual_trigger_keys{
    EventTypeKey{.key = "port", .type = NV_EVENT_INT},
    EventTypeKey{.key = "state", .type = NV_EVENT_BOOL},
};

// First match wins.
constexpr std::array event_types{
    EventType{.name = "com.norv.Event.Wxd.ManualTrigger", .keys = manual_trigger_keys},
    EventType{.name = "com.norv.Event.*", .keys = {}},
    EventType{.name = "Port", .keys = {}},
};

bool matches(std::string_view pattern, std::string_view name) {
  if (pattern.ends_with('*')) {
    pattern.remove_suffix(1);
    return name.starts_with(pattern);
  }
  return name == pattern;
}

} // namespace

const EventType* event_types_find(const char* name) {
  const auto found = std::ranges::find_if(
      event_types, [name](const EventType& type) { return matches(type.name, name); });
  return found != event_types.end() ? &*found : nullptr;
}
