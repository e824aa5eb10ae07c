// Logs each event as one line, so that a person or a test can follow them with grep:
//
//   event declare producer=wxd type=IOPort id=1 property=state port=3 state= topic0=Device ...
//   event send producer=wxd type=IOPort id=1 port=3 state=1 topic0=Device ...
//   event undeclare producer=wxd type=IOPort id=1
#include "platform/event-outlet.h"

#include "platform/log.h"

namespace {

std::string quoted(const std::string& text) {
  if (text.find_first_of(" \"\\\t\r\n=") == std::string::npos) {
    return text;
  }
  g_autofree gchar* escaped = g_strescape(text.c_str(), nullptr);
  return std::string("\"") + escaped + '"';
}

void append(std::string& line, const std::string& name, const std::string& value) {
  line += ' ' + name + '=' + quoted(value);
}

std::string headline(const char* what, const std::string& producer, const std::string& type_name,
                     guint id) {
  std::string line = std::string("event ") + what;
  append(line, "producer", producer);
  append(line, "type", type_name);
  append(line, "id", std::to_string(id));
  return line;
}

void append_values(std::string& line, const NvEventInspectable& contents) {
  for (const auto& key : contents.keys) {
    append(line, key.name, key.value.value_or(""));
  }
}

void append_decorations(std::string& line, const NvEventInspectable& contents) {
  for (const auto& key : contents.keys) {
    if (!key.name_space.empty()) {
      append(line, "namespace." + key.name, key.name_space);
    }
    for (const auto& tag : key.tags) {
      append(line, "tag." + key.name, tag);
    }
    if (key.key_nice_name) {
      append(line, "nice-key." + key.name, *key.key_nice_name);
    }
    if (key.value_nice_name) {
      append(line, "nice-value." + key.name, *key.value_nice_name);
    }
  }
}

void log_line(const std::string& line) {
  g_message("%s%s", log_prefix, line.c_str());
}

} // namespace

struct EventOutlet::State {
  std::string producer;
};

EventOutlet::EventOutlet(const std::string& producer)
    : state_(std::make_unique<State>(State{.producer = producer})) {}

EventOutlet::~EventOutlet() = default;

void EventOutlet::declared(guint id, const NvEventDeclaration& declaration) {
  std::string line = headline("declare", state_->producer, declaration.type_name, id);
  if (declaration.property) {
    append(line, "property", *declaration.property);
  }
  append_values(line, declaration.contents);
  append_decorations(line, declaration.contents);
  log_line(line);
}

void EventOutlet::withdrawn(guint id, const NvEventDeclaration& declaration) {
  log_line(headline("undeclare", state_->producer, declaration.type_name, id));
}

void EventOutlet::sent(const NvEvent& event, const NvEventDeclaration& /*declaration*/) {
  std::string line = headline("send", state_->producer, event.type_name, event.id);
  append_values(line, event.contents);
  log_line(line);
}
