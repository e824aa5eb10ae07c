#include "event/event-values.h"

#include "description/common-vocabulary.h"
#include "platform/words.h"
#include "port/ioport.h"

#include <array>

namespace {

constexpr std::array type_words{
    Word{"int", NV_EVENT_INT},
    Word{"bool", NV_EVENT_BOOL},
    Word{"double", NV_EVENT_DOUBLE},
    Word{"string", NV_EVENT_STRING},
};
static_assert(same_words(type_words, value_type_names));

// A placeholder that stands for the port's state, in the form of each type.
struct StateWords {
  const char* placeholder;
  std::array<const char*, 2> number;
  std::array<const char*, 2> text;
};

constexpr std::array state_placeholders{
    StateWords{.placeholder = "PORT_STATUS", .number = {"0", "1"}, .text = {"false", "true"}},
    StateWords{.placeholder = "PORT_ACTIVE", .number = {"0", "1"}, .text = {"inactive", "active"}},
    StateWords{
        .placeholder = "PORT_INACTIVE", .number = {"1", "0"}, .text = {"active", "inactive"}},
};

constexpr const char* supervised_placeholder = "PORT_SUPERVISED_STATUS";

std::string state_text(IoPort* port, const StateWords& words, NvEventType type) {
  const gsize active = io_port_get_state(port) ? 1 : 0;
  switch (type) {
  case NV_EVENT_INT:
  case NV_EVENT_BOOL:
    return words.number[active];
  case NV_EVENT_STRING:
    return words.text[active];
  case NV_EVENT_DOUBLE:
    break;
  }
  g_assert_not_reached();
}

std::string supervised_text(IoPort* port, NvEventType type) {
  const auto state = io_port_get_supervised_state(port);
  switch (type) {
  case NV_EVENT_INT:
    return std::to_string(static_cast<gint>(state));
  case NV_EVENT_BOOL:
    return state == SUPERVISED_CLOSED ? "1" : "0";
  case NV_EVENT_STRING:
    return supervised_range_state2string(state);
  case NV_EVENT_DOUBLE:
    break;
  }
  g_assert_not_reached();
}

} // namespace

NvEventType event_value_type(const EventKeyValue& key_value) {
  if (!key_value.type) {
    return NV_EVENT_STRING;
  }
  const auto type = find_word(type_words, *key_value.type);
  if (!type) {
    g_assert_not_reached();
  }
  return *type;
}

std::string event_value_text(IoPort* port, const EventKeyValue& key_value) {
  const auto type = event_value_type(key_value);
  std::string value = key_value.value.value_or("");
  for (const auto& words : state_placeholders) {
    if (value == words.placeholder) {
      return state_text(port, words, type);
    }
  }
  if (value == supervised_placeholder) {
    return supervised_text(port, type);
  }
  if (type == NV_EVENT_BOOL) {
    return value == "true" || value == "1" ? "1" : "0";
  }
  return value;
}
