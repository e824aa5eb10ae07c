#include "core/conf-vocabulary.h"

#include "description/common-vocabulary.h"
#include "event/event.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "platform/words.h"
#include "port/action-sequence.h"
#include "port/backend-registry.h"
#include "port/ioport.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <tuple>

namespace {

using Apply = void (*)(const ConfTarget& target, const char* key, const char* value);

struct Row {
  std::string_view element;
  /// Empty: any attribute.
  std::string_view key;
  Apply apply;
};

// Sets `target` to the value of the word (any letter case); an unknown word changes nothing.
template <typename Table, typename Target>
void set_by_word(const Table& words, const char* text, Target& target) {
  if (const auto value = find_word_in_any_case(words, text)) {
    target = *value;
  }
}

static_assert(same_words(direction_words, direction_names));
constexpr std::array mode_words{Word{"bistable", PORT_MODE_BISTABLE},
                                Word{"monostable", PORT_MODE_MONOSTABLE}};
static_assert(same_words(mode_words, port_mode_names));
constexpr std::array button_words{Word{"none", BUTTON_NONE}, Word{"pulse", BUTTON_PULSE},
                                  Word{"actinact", BUTTON_ACTINACT}};
static_assert(same_words(button_words, button_type_names));
constexpr std::array flag_words{Word{"true", true}, Word{"false", false}};

// Exact, unlike the words above.
constexpr std::array type_words{Word{"input", PORT_INPUT}, Word{"output", PORT_OUTPUT},
                                Word{"io_ctrl", PORT_IO_CTRL}};
static_assert(same_words(type_words, port_type_names));

// Ports from here on may meet the virtual inputs of video channels.
constexpr gint first_virtual_port = 6;

void set_number(const ConfTarget& target, const char* /*key*/, const char* value) {
  // The number stored so far is what is looked at: only a second number for a port can warn.
  if (target.port->number >= first_virtual_port) {
    g_warning("%sYou have a port with higher number than FIRST_VIRTUAL_PORT this might lead to "
              "unexpected behaviour",
              log_prefix);
  }
  target.port->number = number_of<gint32>(value);
}

void set_type(const ConfTarget& target, const char* /*key*/, const char* value) {
  IoPort* const port = target.port;
  if (const auto type = find_word(type_words, value)) {
    port->type = *type;
  } else {
    g_critical("%sUnsupported port type %s\n", log_prefix, value);
  }
  if (port->type != PORT_IO_CTRL) {
    port->direction = port->type == PORT_INPUT ? Direction::Input : Direction::Output;
  }
}

void set_pulse_time(const ConfTarget& target, const char* /*key*/, const char* value) {
  gchar* end = nullptr;
  const guint64 pulse_time = g_ascii_strtoull(value, &end, 10);
  if (end != value) {
    target.port->pulse_time = static_cast<guint32>(pulse_time);
  }
}

void select_backend(const ConfTarget& target, const char* /*key*/, const char* value) {
  if (const auto* entry = backend_registry_find(value)) {
    std::ignore = io_port_set_backend(target.port, entry->kind);
  }
}

template <auto Member>
void set_text(const ConfTarget& target, const char* /*key*/, const char* value) {
  target.port->*Member = value;
}

// The first value wins.
template <OptionalText IoPort::*Name>
void set_default_name(const ConfTarget& target, const char* key, const char* value) {
  if (!(target.port->*Name)) {
    set_text<Name>(target, key, value);
  }
}

template <const auto& Words, auto Member>
void set_word(const ConfTarget& target, const char* /*key*/, const char* value) {
  set_by_word(Words, value, target.port->*Member);
}

template <OptionalText EventKeyValue::*Field>
void set_key_value(const ConfTarget& target, const char* /*key*/, const char* value) {
  target.event->key_values.front().*Field = value;
}

template <bool IoEvent::*Flag>
void set_event_flag(const ConfTarget& target, const char* /*key*/, const char* value) {
  set_by_word(flag_words, value, target.event->*Flag);
}

constexpr std::array rows{
    Row{"port", "name", set_text<&IoPort::name>},
    Row{"port", "optional",
        [](const ConfTarget& target, const char*, const char* value) {
          target.port->optional = g_str_equal(value, "true");
        }},
    Row{"port_no", "nbr", set_number},
    Row{"port_type", "type", set_type},
    Row{"param_defaults", "dir", set_word<direction_words, &IoPort::direction>},
    Row{"param_defaults", "port_mode", set_word<mode_words, &IoPort::mode>},
    Row{"param_defaults", "button_type", set_word<button_words, &IoPort::button_type>},
    Row{"param_defaults", "pulse_time", set_pulse_time},
    Row{"param_defaults", "usage", set_text<&IoPort::usage>},
    Row{"param_default_name", "input", set_default_name<&IoPort::input_name>},
    Row{"param_default_name", "output", set_default_name<&IoPort::output_name>},
    Row{"properties", "",
        [](const ConfTarget& target, const char* key, const char* value) {
          io_port_add_property(target.port, key, value);
        }},
    Row{"backend", "name", select_backend},
    Row{"event", "declaration",
        [](const ConfTarget& target, const char*, const char* value) {
          target.event->declaration = value;
        }},
    Row{"event", "input", set_event_flag<&IoEvent::input>},
    Row{"event", "output", set_event_flag<&IoEvent::output>},
    Row{"event", "supervised_input", set_event_flag<&IoEvent::supervised_input>},
    Row{"event", "declare_only", set_event_flag<&IoEvent::declare_only>},
    Row{"keyvalue", "key", set_key_value<&EventKeyValue::key>},
    Row{"keyvalue", "value", set_key_value<&EventKeyValue::value>},
    Row{"keyvalue", "key-nice-name", set_key_value<&EventKeyValue::key_nice_name>},
    Row{"keyvalue", "value-nice-name", set_key_value<&EventKeyValue::value_nice_name>},
    Row{"keyvalue", "type", set_key_value<&EventKeyValue::type>},
    Row{"keyvalue", "property",
        [](const ConfTarget& target, const char*, const char* value) {
          set_by_word(flag_words, value, target.event->key_values.front().property);
        }},
    Row{"first_virtual_input", "nbr",
        [](const ConfTarget&, const char*, const char* value) {
          virtual_input_set_first_port_no(number_of<gint>(value));
        }},
};

constexpr bool is_meant(const Row& row, std::string_view element, std::string_view key) {
  return row.element == element && (row.key.empty() || row.key == key);
}

const Row* find_row(std::string_view element, std::string_view key) {
  const auto found =
      std::ranges::find_if(rows, [&](const Row& row) { return is_meant(row, element, key); });
  return found != rows.end() ? &*found : nullptr;
}

// The reader of the description looks at this one itself.
constexpr bool is_filter(std::string_view key) {
  return key == "hwid";
}

constexpr bool is_handled(const ElementWord& element, const AttributeWord& attribute) {
  return is_filter(attribute.name) || std::ranges::any_of(rows, [&](const Row& row) {
           return is_meant(row, element.name, attribute.name);
         });
}

constexpr bool is_known(const Row& row) {
  return std::ranges::any_of(common_elements, [&](const ElementWord& element) {
    return row.element == element.name
           && (row.key.empty() || has_attribute(element.attributes, row.key));
  });
}

static_assert(std::ranges::all_of(rows, is_known));
static_assert(std::ranges::all_of(common_elements, [](const ElementWord& element) {
  return std::ranges::all_of(element.attributes, [&](const AttributeWord& attribute) {
    return is_handled(element, attribute);
  });
}));

constexpr bool is_port_text(const Row& row) {
  return std::ranges::any_of(common_elements, [&](const ElementWord& element) {
    return row.element == element.name
           && std::ranges::any_of(element.attributes, [&](const AttributeWord& attribute) {
                return row.key == attribute.name && attribute.form == ValueForm::PortText;
              });
  });
}

// Known when compiled, so that the daemon need not carry the vocabulary along.
constexpr auto port_text_rows = [] {
  std::array<bool, rows.size()> found{};
  std::ranges::transform(rows, found.begin(), is_port_text);
  return found;
}();

} // namespace

bool conf_is_port_text(std::string_view element, std::string_view key) {
  const auto* const row = find_row(element, key);
  return row != nullptr && port_text_rows[static_cast<gsize>(row - rows.data())];
}

void conf_apply_attribute(const ConfTarget& target, const char* element, const char* key,
                          const char* value) {
  if (const auto* const row = find_row(element, key)) {
    row->apply(target, key, value);
  }
}
