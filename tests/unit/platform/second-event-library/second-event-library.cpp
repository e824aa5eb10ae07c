// A second implementation of the event library, as small as one can be: it takes whatever it is
// given and prints a line of its own for each declaration and each send. The daemon is built with
// it to show that a device maker can bring another.
#include "platform/event-library.h"

#include <atomic>
#include <cstdio>
#include <string>

struct NvEventProducer {};

struct NvEventInspectable {
  std::string values;
};

struct NvEventDeclaration {
  std::string type_name;
  NvEventInspectable contents;
  bool property = false;
};

struct NvEvent {
  guint id;
  NvEventInspectable contents;
};

namespace {

std::atomic<guint> last_id{0};

void say(const char* what, guint id, const std::string& text) {
  printf("second library: %s %u %s\n", what, id, text.c_str());
}

bool set(NvEventInspectable* inspectable, const char* key, const std::string& value) {
  inspectable->values += std::string(" ") + key + '=' + value;
  return true;
}

} // namespace

GQuark nv_event_error_quark() {
  return g_quark_from_static_string("second-event-error-quark");
}

NvEventProducer* nv_event_producer_new(const char* /*name*/) {
  return new NvEventProducer;
}

NvEventProducer* nv_event_producer_new_full(const char* name, guint /*flags*/,
                                            gpointer /*context*/) {
  return nv_event_producer_new(name);
}

void nv_event_producer_free(NvEventProducer* producer) {
  delete producer;
}

NvEventDeclaration* nv_event_declaration_new(const char* type_name) {
  return new NvEventDeclaration{.type_name = type_name, .contents = {}};
}

NvEventDeclaration* nv_event_declaration_new_from_type(const char* type_name) {
  return nv_event_declaration_new(type_name);
}

void nv_event_declaration_free(NvEventDeclaration* declaration) {
  delete declaration;
}

bool nv_event_declaration_add_key_value(NvEventDeclaration* declaration, const char* key,
                                        const char* value, NvEventType /*type*/) {
  return set(&declaration->contents, key, value);
}

bool nv_event_declaration_add_key(NvEventDeclaration* /*declaration*/, const char* /*key*/,
                                  NvEventType /*type*/) {
  return true;
}

bool nv_event_declaration_set_nice_names(NvEventDeclaration* /*declaration*/, const char* /*key*/,
                                         const char* /*key_nice_name*/,
                                         const char* /*value_nice_name*/) {
  return true;
}

bool nv_event_declaration_set_name_space(NvEventDeclaration* /*declaration*/, const char* /*key*/,
                                         const char* /*name_space*/) {
  return true;
}

bool nv_event_declaration_tag_key(NvEventDeclaration* /*declaration*/, const char* /*key*/,
                                  const char* /*tag*/) {
  return true;
}

bool nv_event_declaration_set_property(NvEventDeclaration* declaration, const char* /*key*/,
                                       NvEventFill /*fill*/, gpointer /*user_data*/) {
  return declaration->property = true;
}

bool nv_event_declaration_is_property(const NvEventDeclaration* declaration) {
  return declaration->property;
}

NvEventInspectable* nv_event_declaration_get_inspectable(NvEventDeclaration* declaration) {
  return &declaration->contents;
}

bool nv_event_inspectable_set_nice_names(NvEventInspectable* /*inspectable*/, const char* /*key*/,
                                         const char* /*key_nice_name*/,
                                         const char* /*value_nice_name*/) {
  return true;
}

bool nv_event_inspectable_set_value(NvEventInspectable* inspectable, const char* key,
                                    const char* value, NvEventType /*type*/) {
  return set(inspectable, key, value);
}

guint nv_event_producer_declare(NvEventProducer* /*producer*/,
                                const NvEventDeclaration* declaration, GError** /*error*/) {
  const guint id = ++last_id;
  say("declare", id, declaration->type_name + declaration->contents.values);
  return id;
}

bool nv_event_producer_undeclare(NvEventProducer* /*producer*/, guint id, GError** /*error*/) {
  say("undeclare", id, "");
  return true;
}

NvEvent* nv_event_producer_prepare(NvEventProducer* /*producer*/, guint id, GError** /*error*/) {
  return new NvEvent{.id = id, .contents = {}};
}

bool nv_event_producer_send(NvEventProducer* /*producer*/, const NvEvent* event,
                            GError** /*error*/) {
  say("send", event->id, event->contents.values);
  return true;
}

void nv_event_free(NvEvent* event) {
  delete event;
}

NvEventInspectable* nv_event_get_inspectable(NvEvent* event) {
  return &event->contents;
}

bool nv_event_set_bool(NvEvent* event, const char* key, bool value) {
  return set(&event->contents, key, value ? "1" : "0");
}

bool nv_event_set_int(NvEvent* event, const char* key, gint value) {
  return set(&event->contents, key, std::to_string(value));
}

bool nv_event_set_string(NvEvent* event, const char* key, const char* value) {
  return set(&event->contents, key, value);
}
