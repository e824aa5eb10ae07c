// The operations on declarations and events, for every event library of ours: what is kept, what is
// refused, when a present state is asked for. Where the events go is the outlet's business.
#include "platform/event-library.h"

#include "platform/callbacks.h"
#include "platform/event-outlet.h"
#include "platform/event-records.h"
#include "platform/event-types.h"
#include "platform/log.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

bool is_int(const char* text) {
  return g_ascii_string_to_signed(text, 10, G_MININT32, G_MAXINT32, nullptr, nullptr);
}

bool is_double(const char* text) {
  char* end = nullptr;
  g_ascii_strtod(text, &end);
  return end != text && *end == '\0';
}

bool text_fits(const char* text, NvEventType type) {
  switch (type) {
  case NV_EVENT_INT:
    return is_int(text);
  case NV_EVENT_BOOL:
    return g_str_equal(text, "0") || g_str_equal(text, "1");
  case NV_EVENT_DOUBLE:
    return is_double(text);
  case NV_EVENT_STRING:
    return true;
  }
  return false;
}

} // namespace

struct NvEventProducer {
  std::string name;
  /// Told of everything with the mutex held, and so in order.
  EventOutlet outlet{name};
  std::mutex mutex = {};
  guint next_id = 1;
  std::map<guint, NvEventDeclaration> declarations = {};
  /// Main-loop sources that still have to ask for an initial state, by declaration id.
  std::map<guint, guint> pending_fills = {};
};

namespace {

bool fail(GError** error, NvEventError code, const std::string& message) {
  g_set_error_literal(error, nv_event_error_quark(), code, message.c_str());
  return false;
}

bool unknown_id(GError** error, guint id) {
  return fail(error, NV_EVENT_ERROR_UNKNOWN_ID, "unknown declaration id " + std::to_string(id));
}

bool add_key(NvEventDeclaration* declaration, EventKey key) {
  if (declaration->contents.find(key.name.c_str()) != nullptr) {
    return false;
  }
  declaration->contents.keys.push_back(std::move(key));
  return true;
}

std::optional<std::string> optional_text(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

// A property is asked for its present state as soon as the main loop gets to it.
struct PendingFill {
  NvEventProducer* producer;
  guint id;
};

std::unique_ptr<NvEvent> prepare_locked(NvEventProducer* producer, guint id) {
  const auto found = producer->declarations.find(id);
  if (found == producer->declarations.end()) {
    return nullptr;
  }
  return std::unique_ptr<NvEvent>(new NvEvent{
      .id = id, .type_name = found->second.type_name, .contents = found->second.contents});
}

gboolean run_fill(const PendingFill* pending) {
  NvEventProducer* const producer = pending->producer;
  std::unique_ptr<NvEvent> event;
  NvEventFill fill = nullptr;
  gpointer user_data = nullptr;
  {
    const std::lock_guard guard(producer->mutex);
    producer->pending_fills.erase(pending->id);
    event = prepare_locked(producer, pending->id);
    if (event != nullptr) {
      fill = producer->declarations.at(pending->id).fill;
      user_data = producer->declarations.at(pending->id).user_data;
    }
  }
  if (event != nullptr) {
    fill(event.get(), user_data);
    g_autoptr(GError) error = nullptr;
    if (!nv_event_producer_send(producer, event.get(), &error)) {
      g_warning("%sNo initial state of event %s: %s", log_prefix, event->type_name.c_str(),
                error->message);
    }
  }
  return G_SOURCE_REMOVE;
}

void schedule_fill_locked(NvEventProducer* producer, guint id) {
  producer->pending_fills[id] =
      g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, callback<run_fill>, new PendingFill{producer, id},
                      delete_data<PendingFill>);
}

} // namespace

GQuark nv_event_error_quark() {
  return g_quark_from_static_string("nv-event-error-quark");
}

NvEventProducer* nv_event_producer_new(const char* name) {
  return nv_event_producer_new_full(name, 0, nullptr);
}

NvEventProducer* nv_event_producer_new_full(const char* name, guint /*flags*/,
                                            gpointer /*context*/) {
  return new NvEventProducer{.name = name};
}

void nv_event_producer_free(NvEventProducer* producer) {
  if (producer == nullptr) {
    return;
  }
  {
    const std::lock_guard guard(producer->mutex);
    for (const auto& [id, source] : producer->pending_fills) {
      g_source_remove(source);
    }
  }
  delete producer;
}

NvEventDeclaration* nv_event_declaration_new(const char* type_name) {
  return new NvEventDeclaration{.type_name = type_name};
}

NvEventDeclaration* nv_event_declaration_new_from_type(const char* type_name) {
  const EventType* type = type_name != nullptr ? event_types_find(type_name) : nullptr;
  if (type == nullptr) {
    return nullptr;
  }
  auto* declaration = nv_event_declaration_new(type_name);
  declaration->contents.open = type->keys.empty();
  for (const auto& key : type->keys) {
    declaration->contents.keys.push_back(EventKey{.name = key.key, .type = key.type});
  }
  return declaration;
}

void nv_event_declaration_free(NvEventDeclaration* declaration) {
  delete declaration;
}

bool nv_event_declaration_add_key_value(NvEventDeclaration* declaration, const char* key,
                                        const char* value, NvEventType type) {
  return text_fits(value, type)
         && add_key(declaration, EventKey{.name = key, .type = type, .value = value});
}

bool nv_event_declaration_add_key(NvEventDeclaration* declaration, const char* key,
                                  NvEventType type) {
  return add_key(declaration, EventKey{.name = key, .type = type});
}

bool nv_event_declaration_set_nice_names(NvEventDeclaration* declaration, const char* key,
                                         const char* key_nice_name, const char* value_nice_name) {
  return nv_event_inspectable_set_nice_names(&declaration->contents, key, key_nice_name,
                                             value_nice_name);
}

bool nv_event_declaration_set_name_space(NvEventDeclaration* declaration, const char* key,
                                         const char* name_space) {
  EventKey* const found = declaration->contents.find(key);
  if (found == nullptr) {
    return false;
  }
  found->name_space = name_space;
  return true;
}

bool nv_event_declaration_tag_key(NvEventDeclaration* declaration, const char* key,
                                  const char* tag) {
  EventKey* const found = declaration->contents.find(key);
  if (found == nullptr) {
    return false;
  }
  found->tags.emplace_back(tag);
  return true;
}

bool nv_event_declaration_set_property(NvEventDeclaration* declaration, const char* key,
                                       NvEventFill fill, gpointer user_data) {
  if (declaration->contents.find_or_add(key, NV_EVENT_STRING) == nullptr) {
    return false;
  }
  declaration->property = key;
  declaration->fill = fill;
  declaration->user_data = user_data;
  return true;
}

bool nv_event_declaration_is_property(const NvEventDeclaration* declaration) {
  return declaration->property.has_value();
}

NvEventInspectable* nv_event_declaration_get_inspectable(NvEventDeclaration* declaration) {
  return &declaration->contents;
}

bool nv_event_inspectable_set_nice_names(NvEventInspectable* inspectable, const char* key,
                                         const char* key_nice_name, const char* value_nice_name) {
  EventKey* const found = inspectable->find_or_add(key, NV_EVENT_STRING);
  if (found == nullptr) {
    return false;
  }
  found->key_nice_name = optional_text(key_nice_name);
  found->value_nice_name = optional_text(value_nice_name);
  return true;
}

bool nv_event_inspectable_set_value(NvEventInspectable* inspectable, const char* key,
                                    const char* value, NvEventType type) {
  EventKey* const found = inspectable->find_or_add(key, type);
  if (found == nullptr || !text_fits(value, type)) {
    return false;
  }
  if (inspectable->open) {
    // The type of such a key is that of its latest value.
    found->type = type;
  } else if (found->type != type) {
    return false;
  }
  found->value = value;
  return true;
}

guint nv_event_producer_declare(NvEventProducer* producer, const NvEventDeclaration* declaration,
                                GError** /*error*/) {
  const std::lock_guard guard(producer->mutex);
  const guint id = producer->next_id++;
  producer->declarations.emplace(id, *declaration);
  producer->outlet.declared(id, *declaration);
  if (declaration->fill != nullptr) {
    schedule_fill_locked(producer, id);
  }
  return id;
}

bool nv_event_producer_undeclare(NvEventProducer* producer, guint id, GError** error) {
  const std::lock_guard guard(producer->mutex);
  const auto found = producer->declarations.find(id);
  if (found == producer->declarations.end()) {
    return unknown_id(error, id);
  }
  producer->outlet.withdrawn(id, found->second);
  producer->declarations.erase(found);
  return true;
}

NvEvent* nv_event_producer_prepare(NvEventProducer* producer, guint id, GError** error) {
  const std::lock_guard guard(producer->mutex);
  auto event = prepare_locked(producer, id);
  if (event == nullptr) {
    unknown_id(error, id);
  }
  return event.release();
}

bool nv_event_producer_send(NvEventProducer* producer, const NvEvent* event, GError** error) {
  const std::lock_guard guard(producer->mutex);
  const auto declaration = producer->declarations.find(event->id);
  if (declaration == producer->declarations.end()) {
    return unknown_id(error, event->id);
  }
  for (const auto& key : event->contents.keys) {
    if (!key.value) {
      return fail(error, NV_EVENT_ERROR_NOT_COMPLETE, "no value for key " + key.name);
    }
  }
  producer->outlet.sent(*event, declaration->second);
  return true;
}

void nv_event_free(NvEvent* event) {
  delete event;
}

NvEventInspectable* nv_event_get_inspectable(NvEvent* event) {
  return &event->contents;
}

bool nv_event_set_bool(NvEvent* event, const char* key, bool value) {
  return nv_event_inspectable_set_value(&event->contents, key, value ? "1" : "0", NV_EVENT_BOOL);
}

bool nv_event_set_int(NvEvent* event, const char* key, gint value) {
  return nv_event_inspectable_set_value(&event->contents, key, std::to_string(value).c_str(),
                                        NV_EVENT_INT);
}

bool nv_event_set_string(NvEvent* event, const char* key, const char* value) {
  return nv_event_inspectable_set_value(&event->contents, key, value, NV_EVENT_STRING);
}
