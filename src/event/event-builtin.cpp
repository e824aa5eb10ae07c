// The built-in declarations as data: one row per key, one table per declaration.
#include "event/event-builtin.h"

#include "platform/checks.h"
#include "port/ioport-list.h"

#include <array>
#include <span>
#include <tuple>

namespace {

// What a key's fixed value or value nice name is taken from.
enum class Source { None, PortNumber, PortName, Text };

struct KeyRow {
  const char* key;
  NvEventType type;
  Source value = Source::None;
  const char* value_text = nullptr;
  const char* name_space = nullptr;
  const char* tag = nullptr;
  const char* key_nice_name = nullptr;
  Source value_nice_name = Source::None;
  const char* value_nice_text = nullptr;
};

struct Declaration {
  const char* type_name;
  std::span<const KeyRow> keys;
  const char* property;
  NvEventFill fill;
};

constexpr KeyRow topic(const char* key, const char* value, const char* name_space,
                       const char* nice_name = nullptr) {
  return {.key = key,
          .type = NV_EVENT_STRING,
          .value = Source::Text,
          .value_text = value,
          .name_space = name_space,
          .value_nice_name = nice_name != nullptr ? Source::Text : Source::None,
          .value_nice_text = nice_name};
}

constexpr KeyRow data_key(const char* key, NvEventType type, const char* nice_name) {
  return {.key = key, .type = type, .tag = "onvif-data", .key_nice_name = nice_name};
}

constexpr KeyRow numbered_port{.key = "port",
                               .type = NV_EVENT_INT,
                               .value = Source::PortNumber,
                               .tag = "onvif-source",
                               .key_nice_name = "Port",
                               .value_nice_name = Source::PortName};
constexpr KeyRow any_port{.key = "port",
                          .type = NV_EVENT_INT,
                          .value = Source::Text,
                          .value_text = "-1",
                          .tag = "onvif-source",
                          .key_nice_name = "Port",
                          .value_nice_name = Source::Text,
                          .value_nice_text = "Any"};

constexpr KeyRow topic_device = topic("topic0", "Device", "tns1");
constexpr KeyRow topic_io = topic("topic1", "IO", "tnsnorv", "Input ports");
constexpr KeyRow topic_port = topic("topic2", "Port", "tnsnorv", "Digital input port");
constexpr KeyRow topic_supervised =
    topic("topic2", "SupervisedPort", "tnsnorv", "Supervised input port");

constexpr std::array io_port_keys{numbered_port, data_key("state", NV_EVENT_BOOL, "Active"),
                                  topic_device, topic_io, topic_port};
constexpr std::array port_any_keys{any_port, data_key("state", NV_EVENT_BOOL, "Active"),
                                   topic_device, topic_io, topic_port};
constexpr std::array supervised_keys{numbered_port,
                                     data_key("tampered", NV_EVENT_BOOL, "Tampered"),
                                     data_key("state", NV_EVENT_STRING, "State"),
                                     topic_device,
                                     topic_io,
                                     topic_supervised};

// The fills run from the main loop with no lock held, so they may look ports up.
IoPortRef port_of(gpointer user_data) {
  return io_port_list_get_port(GPOINTER_TO_INT(user_data));
}

void fill_io_port(NvEvent* event, gpointer user_data) {
  const auto port = port_of(user_data);
  std::ignore = nv_event_set_bool(event, "state", port != nullptr && io_port_get_state(port.get()));
}

void fill_port_any(NvEvent* event, gpointer /*user_data*/) {
  std::ignore = nv_event_set_bool(event, "state", io_port_list_get_port_any_value());
}

void fill_supervised_port(NvEvent* event, gpointer user_data) {
  const auto port = port_of(user_data);
  const auto state =
      port != nullptr ? io_port_get_supervised_state(port.get()) : SUPERVISED_UNDEFINED;
  std::ignore = nv_event_set_bool(event, "tampered", event_tampered(state));
  std::ignore = nv_event_set_string(event, "state", supervised_range_state2string(state));
}

constexpr std::array declarations{
    Declaration{.type_name = event_io_port,
                .keys = io_port_keys,
                .property = "state",
                .fill = fill_io_port},
    Declaration{.type_name = event_port_any,
                .keys = port_any_keys,
                .property = "state",
                .fill = fill_port_any},
    Declaration{.type_name = event_supervised_port,
                .keys = supervised_keys,
                .property = "tampered",
                .fill = fill_supervised_port},
};

const Declaration* find(const char* type_name) {
  for (const auto& declaration : declarations) {
    if (g_strcmp0(declaration.type_name, type_name) == 0) {
      return &declaration;
    }
  }
  return nullptr;
}

OptionalText resolve(IoPort* port, Source source, const char* text) {
  switch (source) {
  case Source::None:
    return std::nullopt;
  case Source::PortNumber:
    return std::to_string(port->number);
  case Source::PortName: {
    g_autofree gchar* name = io_port_get_name(port);
    return name != nullptr ? OptionalText(name) : std::nullopt;
  }
  case Source::Text:
    return text;
  }
  return std::nullopt;
}

void add_key(NvEventDeclaration* declaration, IoPort* port, const KeyRow& row) {
  if (const auto value = resolve(port, row.value, row.value_text)) {
    std::ignore =
        nv_event_declaration_add_key_value(declaration, row.key, value->c_str(), row.type);
  } else {
    std::ignore = nv_event_declaration_add_key(declaration, row.key, row.type);
  }
  const auto value_nice_name = resolve(port, row.value_nice_name, row.value_nice_text);
  if (row.key_nice_name != nullptr || value_nice_name) {
    std::ignore = nv_event_declaration_set_nice_names(declaration, row.key, row.key_nice_name,
                                                      c_str_or_null(value_nice_name));
  }
  if (row.name_space != nullptr) {
    std::ignore = nv_event_declaration_set_name_space(declaration, row.key, row.name_space);
  }
  if (row.tag != nullptr) {
    std::ignore = nv_event_declaration_tag_key(declaration, row.key, row.tag);
  }
}

} // namespace

bool event_builtin_known(const char* type_name) {
  return find(type_name) != nullptr;
}

NvEventDeclaration* event_builtin_declaration(IoPort* port, const char* type_name,
                                              InitialState initial_state) {
  const Declaration* const table = find(type_name);
  WEXD_ASSERT_NONNULL(table);
  auto* declaration = nv_event_declaration_new(type_name);
  for (const auto& row : table->keys) {
    add_key(declaration, port, row);
  }
  // The any-port declaration belongs to no port.
  const bool any = table->fill == fill_port_any;
  std::ignore = nv_event_declaration_set_property(
      declaration, table->property, initial_state == InitialState::Sent ? table->fill : nullptr,
      any ? nullptr : GINT_TO_POINTER(port->number));
  return declaration;
}

bool event_tampered(guint supervised_state) {
  return supervised_state == SUPERVISED_SHORT || supervised_state == SUPERVISED_CUT;
}
