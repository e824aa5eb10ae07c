#include "support/fake-event-library.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <utility>

using fake_events::Declaration;
using fake_events::Key;
using fake_events::Refuse;

struct NvEventProducer {
  std::string name;
};

struct NvEventInspectable {
  Declaration* contents;
};

struct NvEventDeclaration {
  Declaration contents;
  /// Whether keys come up as they are used, as in types that the library knows.
  bool open = false;
  NvEventInspectable inspectable{&contents};
};

struct NvEvent {
  guint id;
  Declaration contents;
  NvEventInspectable inspectable{&contents};
};

namespace {

std::recursive_mutex mutex;
std::map<guint, Declaration> declarations;
std::set<guint> declared;
std::vector<std::string> events_log;
std::vector<std::string> producer_names;
std::set<Refuse> refused;
std::map<std::string, std::string> property_types;

bool refuses(Refuse operation) {
  const std::lock_guard guard(mutex);
  return refused.contains(operation);
}

void note(const std::string& line) {
  const std::lock_guard guard(mutex);
  events_log.push_back(line);
  if (fake_events::listener != nullptr) {
    fake_events::listener(line);
  }
}

Key* find(Declaration* contents, const char* name) {
  const auto found = std::ranges::find(contents->keys, std::string(name), &Key::name);
  return found != contents->keys.end() ? &*found : nullptr;
}

Key* find_or_add(Declaration* contents, const char* name, NvEventType type) {
  Key* const key = find(contents, name);
  return key != nullptr ? key : &contents->keys.emplace_back(Key{.name = name, .type = type});
}

std::optional<std::string> optional_text(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

} // namespace

namespace fake_events {

void (*listener)(const std::string& line) = nullptr;

const Key& Declaration::key(const std::string& name) const {
  const auto found = std::ranges::find(keys, name, &Key::name);
  g_assert(found != keys.end());
  return *found;
}

const Declaration& declaration(guint id) {
  const std::lock_guard guard(mutex);
  g_assert(declarations.contains(id));
  return declarations.at(id);
}

bool is_declared(guint id) {
  const std::lock_guard guard(mutex);
  return declared.contains(id);
}

int times_declared(const std::string& type_name) {
  const std::lock_guard guard(mutex);
  return static_cast<int>(std::ranges::count_if(
      declarations, [&](const auto& entry) { return entry.second.type_name == type_name; }));
}

std::vector<std::string> take_log() {
  const std::lock_guard guard(mutex);
  return std::exchange(events_log, {});
}

std::map<std::string, std::string> ask(guint id) {
  NvEvent event{.id = id, .contents = declaration(id)};
  event.inspectable.contents = &event.contents;
  event.contents.fill(&event, event.contents.user_data);
  std::map<std::string, std::string> values;
  for (const auto& key : event.contents.keys) {
    values[key.name] = key.value.value_or("(none)");
  }
  return values;
}

void refuse(Refuse operation, bool on) {
  const std::lock_guard guard(mutex);
  if (on) {
    refused.insert(operation);
  } else {
    refused.erase(operation);
  }
}

void add_property_type(const std::string& type_name, const std::string& property) {
  property_types[type_name] = property;
}

std::vector<std::string> producers() {
  return producer_names;
}

void reset() {
  const std::lock_guard guard(mutex);
  events_log.clear();
  refused.clear();
  property_types.clear();
}

} // namespace fake_events

GQuark nv_event_error_quark() {
  return g_quark_from_static_string("fake-event-error-quark");
}

NvEventProducer* nv_event_producer_new(const char* name) {
  producer_names.emplace_back(name);
  return new NvEventProducer{name};
}

NvEventProducer* nv_event_producer_new_full(const char* name, guint /*flags*/,
                                            gpointer /*context*/) {
  return nv_event_producer_new(name);
}

void nv_event_producer_free(NvEventProducer* producer) {
  delete producer;
}

NvEventDeclaration* nv_event_declaration_new(const char* type_name) {
  return new NvEventDeclaration{.contents = {.type_name = type_name, .keys = {}}};
}

NvEventDeclaration* nv_event_declaration_new_from_type(const char* type_name) {
  if (type_name == nullptr
      || (!g_str_has_prefix(type_name, "Known") && !property_types.contains(type_name))) {
    return nullptr;
  }
  auto* made = nv_event_declaration_new(type_name);
  made->open = true;
  if (property_types.contains(type_name)) {
    made->contents.property = property_types.at(type_name);
  }
  return made;
}

void nv_event_declaration_free(NvEventDeclaration* declaration) {
  delete declaration;
}

bool nv_event_declaration_add_key_value(NvEventDeclaration* declaration, const char* key,
                                        const char* value, NvEventType type) {
  declaration->contents.keys.push_back(Key{.name = key, .type = type, .value = value});
  return true;
}

bool nv_event_declaration_add_key(NvEventDeclaration* declaration, const char* key,
                                  NvEventType type) {
  declaration->contents.keys.push_back(Key{.name = key, .type = type});
  return true;
}

bool nv_event_declaration_set_nice_names(NvEventDeclaration* declaration, const char* key,
                                         const char* key_nice_name, const char* value_nice_name) {
  Key* const found = find(&declaration->contents, key);
  g_assert(found != nullptr);
  found->key_nice_name = optional_text(key_nice_name);
  found->value_nice_name = optional_text(value_nice_name);
  return true;
}

bool nv_event_declaration_set_name_space(NvEventDeclaration* declaration, const char* key,
                                         const char* name_space) {
  find(&declaration->contents, key)->name_space = name_space;
  return true;
}

bool nv_event_declaration_tag_key(NvEventDeclaration* declaration, const char* key,
                                  const char* tag) {
  find(&declaration->contents, key)->tags.emplace_back(tag);
  return true;
}

bool nv_event_declaration_set_property(NvEventDeclaration* declaration, const char* key,
                                       NvEventFill fill, gpointer user_data) {
  if (refuses(Refuse::Property)) {
    return false;
  }
  declaration->contents.property = key;
  declaration->contents.fill = fill;
  declaration->contents.user_data = user_data;
  return true;
}

bool nv_event_declaration_is_property(const NvEventDeclaration* declaration) {
  return declaration->contents.property.has_value();
}

NvEventInspectable* nv_event_declaration_get_inspectable(NvEventDeclaration* declaration) {
  return &declaration->inspectable;
}

bool nv_event_inspectable_set_nice_names(NvEventInspectable* inspectable, const char* key,
                                         const char* key_nice_name, const char* value_nice_name) {
  if (refuses(Refuse::NiceNames)) {
    return false;
  }
  Key* const found = find_or_add(inspectable->contents, key, NV_EVENT_STRING);
  found->key_nice_name = optional_text(key_nice_name);
  found->value_nice_name = optional_text(value_nice_name);
  return true;
}

bool nv_event_inspectable_set_value(NvEventInspectable* inspectable, const char* key,
                                    const char* value, NvEventType type) {
  if (refuses(Refuse::Value)) {
    return false;
  }
  Key* const found = find_or_add(inspectable->contents, key, type);
  found->type = type;
  found->value = value;
  return true;
}

guint nv_event_producer_declare(NvEventProducer* /*producer*/,
                                const NvEventDeclaration* declaration, GError** /*error*/) {
  if (refuses(Refuse::Declare)) {
    return 0;
  }
  const std::lock_guard guard(mutex);
  const auto id = static_cast<guint>(declarations.size() + 1);
  declarations[id] = declaration->contents;
  declared.insert(id);
  note("declare " + declaration->contents.type_name);
  return id;
}

bool nv_event_producer_undeclare(NvEventProducer* /*producer*/, guint id, GError** /*error*/) {
  const std::lock_guard guard(mutex);
  g_assert(declared.erase(id) == 1);
  note("undeclare " + declarations.at(id).type_name);
  return true;
}

NvEvent* nv_event_producer_prepare(NvEventProducer* /*producer*/, guint id, GError** /*error*/) {
  const std::lock_guard guard(mutex);
  if (refuses(Refuse::Prepare) || !declared.contains(id)) {
    return nullptr;
  }
  auto* event = new NvEvent{.id = id, .contents = declarations.at(id)};
  event->inspectable.contents = &event->contents;
  return event;
}

bool nv_event_producer_send(NvEventProducer* /*producer*/, const NvEvent* event, GError** error) {
  if (refuses(Refuse::SendWithError)) {
    g_set_error_literal(error, nv_event_error_quark(), NV_EVENT_ERROR_NOT_COMPLETE,
                        "the fake refuses");
    return false;
  }
  if (refuses(Refuse::Send)) {
    return false;
  }
  std::string line = "send " + event->contents.type_name;
  for (const auto& key : event->contents.keys) {
    if (!key.name.starts_with("topic")) {
      line += ' ' + key.name + '=' + key.value.value_or("(none)");
    }
  }
  note(line);
  return true;
}

void nv_event_free(NvEvent* event) {
  delete event;
}

NvEventInspectable* nv_event_get_inspectable(NvEvent* event) {
  return &event->inspectable;
}

bool nv_event_set_bool(NvEvent* event, const char* key, bool value) {
  return nv_event_inspectable_set_value(&event->inspectable, key, value ? "1" : "0", NV_EVENT_BOOL);
}

bool nv_event_set_int(NvEvent* event, const char* key, gint value) {
  return nv_event_inspectable_set_value(&event->inspectable, key, std::to_string(value).c_str(),
                                        NV_EVENT_INT);
}

bool nv_event_set_string(NvEvent* event, const char* key, const char* value) {
  return nv_event_inspectable_set_value(&event->inspectable, key, value, NV_EVENT_STRING);
}
