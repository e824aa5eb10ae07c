// Publishes each event under a topic of its port: a state as a message that the broker retains, an
// occurrence as one that it passes on.
#include "platform/event-outlet.h"

#include "platform/mqtt-link.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <memory>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

Json json_value(const EventKey& key) {
  const std::string& text = key.value.value();
  switch (key.type) {
  case NV_EVENT_INT:
    return g_ascii_strtoll(text.c_str(), nullptr, 10);
  case NV_EVENT_BOOL:
    return text == "1";
  case NV_EVENT_DOUBLE:
    return g_ascii_strtod(text.c_str(), nullptr);
  case NV_EVENT_STRING:
    break;
  }
  return text;
}

std::string payload_of(const NvEvent& event) {
  Json payload = Json::object();
  for (const auto& key : event.contents.keys) {
    payload[key.name] = json_value(key);
  }
  return payload.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string topic_of(const std::string& prefix, const NvEvent& event) {
  std::string topic = prefix + '/' + mqtt_topic_level(event.type_name);
  const auto port = std::ranges::find(event.contents.keys, "port", &EventKey::name);
  if (port != event.contents.keys.end()) {
    topic += '/' + mqtt_topic_level(port->value.value());
  }
  return topic;
}

} // namespace

// Without a link there is nobody to tell.
struct EventOutlet::State {
  bool settings_read = false;
  std::string prefix = {};
  std::unique_ptr<MqttLink> link = nullptr;
  /// Where the states of declarations stand, by their ids.
  std::map<guint, std::string> topics = {};
};

EventOutlet::EventOutlet(const std::string& /*producer*/) : state_(std::make_unique<State>()) {}

EventOutlet::~EventOutlet() = default;

// A producer that declares nothing is no reason to look for a broker.
void EventOutlet::declared(guint /*id*/, const NvEventDeclaration& /*declaration*/) {
  if (std::exchange(state_->settings_read, true)) {
    return;
  }
  if (const auto settings = mqtt_settings_read()) {
    state_->prefix = settings->prefix;
    state_->link = std::make_unique<MqttLink>(*settings);
  }
}

// Two events of a port may share a topic, which stands as long as one of them does.
void EventOutlet::withdrawn(guint id, const NvEventDeclaration& /*declaration*/) {
  const auto entry = state_->topics.extract(id);
  if (entry.empty()) {
    return;
  }
  const bool shared = std::ranges::any_of(
      state_->topics, [&](const auto& other) { return other.second == entry.mapped(); });
  if (!shared) {
    state_->link->set_state(entry.mapped(), "");
  }
}

void EventOutlet::sent(const NvEvent& event, const NvEventDeclaration& declaration) {
  if (state_->link == nullptr) {
    return;
  }
  auto topic = topic_of(state_->prefix, event);
  if (!declaration.property) {
    state_->link->tell(std::move(topic), payload_of(event));
    return;
  }
  state_->topics[event.id] = topic;
  state_->link->set_state(std::move(topic), payload_of(event));
}
