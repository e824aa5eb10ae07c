// A device has its own list of event types; this one serves descriptions on a simulated device.
#include "platform/event-types.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array manual_trigger_keys{
    EventTypeKey{.key = "port", .type = NV_EVENT_INT},
    EventTypeKey{.key = "state", .type = NV_EVENT_BOOL},
};

constexpr std::array event_types{
    EventType{.name = "com.norv.Event.Wxd.ManualTrigger", .keys = manual_trigger_keys},
    EventType{.name = "Port", .keys = {}},
};

} // namespace

const EventType* event_types_find(const char* name) {
  const auto found = std::ranges::find_if(
      event_types, [name](const EventType& type) { return g_str_equal(type.name, name); });
  return found != event_types.end() ? &*found : nullptr;
}
