#include "dbus/legacy-properties.h"

#include "dbus/legacy-names.h"
#include "param/param.h"
#include "platform/numbers.h"
#include "platform/words.h"
#include "port/action-sequence.h"
#include "port/errors.h"
#include "port/ioport-list.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <tuple>

namespace {

constexpr const char* absent_text = "<NULL>";

bool refuse(GError** error, const char* message) {
  g_set_error_literal(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, message);
  return false;
}

bool unsupported(const LegacyWrite& write) {
  g_set_error(write.error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
              "Unsupported write of property '%s'", write.name);
  return false;
}

bool incorrect(const LegacyWrite& write) {
  g_set_error(write.error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "Incorrect value for %s",
              write.name);
  return false;
}

bool save(IoPort* port) {
  param_save_for_port(port, param_file);
  return true;
}

// A byte string, with or without its final zero; nothing when it is not text.
OptionalText text_of(GVariant* value) {
  gsize length = 0;
  const auto* bytes =
      static_cast<const char*>(g_variant_get_fixed_array(value, &length, sizeof(char)));
  std::string_view text(bytes, length);
  if (text.ends_with('\0')) {
    text.remove_suffix(1);
  }
  if (!g_utf8_validate_len(text.data(), text.size(), nullptr)) {
    return std::nullopt;
  }
  return std::string(text);
}

// Reading. Texts are answered as strings, whatever the declared type says; clients rely on it.

// A port without a name is saved with an empty one, and must read the same after a restart.
GVariant* text_or_absent(const OptionalText& text) {
  return g_variant_new_string(text && !text->empty() ? text->c_str() : absent_text);
}

GVariant* read_nbr_inputs() {
  return g_variant_new("i", io_port_list_nbr_inputs());
}

GVariant* read_nbr_outputs() {
  return g_variant_new("i", io_port_list_nbr_outputs());
}

GVariant* read_manual_trigger_nbr() {
  // Wraps at the greatest first number.
  return g_variant_new_int32(wrapping_sum(virtual_input_get_first_port_no(), 1));
}

GVariant* read_nbr_ports(const IoPort* /*port*/) {
  return g_variant_new("i", io_port_list_nbr_inputs() + io_port_list_nbr_outputs());
}

GVariant* read_configurable(const IoPort* port) {
  if (!io_port_get_property(port, "ioport")) {
    return nullptr;
  }
  return g_variant_new_boolean(port->type == PORT_IO_CTRL);
}

GVariant* read_direction(const IoPort* port) {
  if (!io_port_get_property(port, "ioport")) {
    return nullptr;
  }
  return g_variant_new_string(io_port_direction_input(port) ? "input" : "output");
}

GVariant* read_usage(const IoPort* port) {
  return g_variant_new_string(port->usage.c_str());
}

GVariant* read_input_name(const IoPort* port) {
  return text_or_absent(port->input_name);
}

GVariant* read_output_name(const IoPort* port) {
  return text_or_absent(port->output_name);
}

GVariant* read_trig(const IoPort* port) {
  return g_variant_new_string(open_or_closed(port->activelow_input));
}

GVariant* read_active(const IoPort* port) {
  return g_variant_new_string(open_or_closed(port->activelow_output));
}

GVariant* read_button(const IoPort* port) {
  return g_variant_new_string(button_type_string[port->button_type]);
}

GVariant* read_pulse_time(const IoPort* port) {
  return g_variant_new_int32(static_cast<gint32>(port->pulse_time));
}

GVariant* read_mode(const IoPort* port) {
  return g_variant_new_string(port_mode_string[port->mode]);
}

GVariant* read_delay_time(const IoPort* port) {
  return g_variant_new_int32(port->delay_time);
}

// Writing

template <bool (*set_name)(IoPort*, const char*)>
bool write_name(IoPort* port, const LegacyWrite& write) {
  const auto text = text_of(write.value);
  if (!text) {
    return incorrect(write);
  }
  return set_name(port, text->c_str()) ? save(port) : unsupported(write);
}

bool refuse_active(const LegacyWrite& write) {
  return refuse(write.error, "Setting Active failed");
}

template <PortSide side, bool (*refused)(const LegacyWrite&)>
bool write_activelow(IoPort* port, const LegacyWrite& write) {
  const auto activelow = find_word(activelow_words, text_of(write.value).value_or(""));
  if (!activelow) {
    return incorrect(write);
  }
  return io_port_set_activelow(port, *activelow, side) ? save(port) : refused(write);
}

bool turn_port(IoPort* port, Direction direction, const LegacyWrite& write) {
  if (!io_port_set_direction(port, direction)) {
    return refuse(write.error, "Setting Direction failed");
  }
  write.port_counts_changed();
  return save(port);
}

bool write_direction(IoPort* port, const LegacyWrite& write) {
  const auto text = text_of(write.value).value_or("");
  const auto direction = find_word(direction_words, text);
  if (!direction) {
    g_warning("Undefined input: %s, for property: %s", text.c_str(), write.name);
    g_set_error(write.error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS, "Bad Direction '%s'",
                text.c_str());
    return false;
  }
  switch (port->type) {
  case PORT_INPUT:
    return direction == Direction::Input || refuse(write.error, "Port Direction is not settable");
  case PORT_OUTPUT:
    return direction == Direction::Output || refuse(write.error, "Port Direction is not settable");
  case PORT_IO_CTRL:
    return port->direction == direction || turn_port(port, *direction, write);
  }
  return true;
}

// The value is taken, and yet refused and not saved: clients have come to count on both.
bool write_button(IoPort* port, const LegacyWrite& write) {
  const auto text = text_of(write.value).value_or("");
  const auto button = enumerator_of<ButtonType>(button_type_string, text);
  if (!button) {
    return incorrect(write);
  }
  port->button_type = *button;
  return unsupported(write);
}

bool write_pulse_time(IoPort* port, const LegacyWrite& write) {
  port->pulse_time = static_cast<guint32>(g_variant_get_int32(write.value));
  return save(port);
}

bool write_mode(IoPort* port, const LegacyWrite& write) {
  const auto text = text_of(write.value).value_or("");
  const auto mode = enumerator_of<PortMode>(port_mode_string, text);
  return mode && io_port_set_mode(port, *mode) ? save(port) : incorrect(write);
}

bool write_delay_time(IoPort* port, const LegacyWrite& write) {
  io_port_set_delay_time(port, g_variant_get_int32(write.value));
  return save(port);
}

bool write_usage(IoPort* port, const LegacyWrite& write) {
  const auto text = text_of(write.value);
  if (!text) {
    return incorrect(write);
  }
  // A refused usage is no error here.
  std::ignore = io_port_set_usage(port, text->c_str());
  return save(port);
}

/// One property of one interface.
struct LegacyProperty {
  const char* interface_name;
  const char* name;
  /// Value of the device as a whole; such a property needs no port. Else nullptr.
  GVariant* (*read_device)();
  /// Value of a port, or nullptr when the property has none for it.
  GVariant* (*read)(const IoPort* port);
  /// Writes, saves and returns true; false with the write's error when refused. nullptr: read-only.
  bool (*write)(IoPort* port, const LegacyWrite& write);
};

constexpr const char* ioport = legacy_ioport_interface;
constexpr const char* input = legacy_input_interface;
constexpr const char* output = legacy_output_interface;

constexpr std::array properties{
    LegacyProperty{ioport, "NbrOfIOPorts", nullptr, read_nbr_ports, nullptr},
    LegacyProperty{ioport, "NbrOfInputs", read_nbr_inputs, nullptr, nullptr},
    LegacyProperty{ioport, "NbrOfOutputs", read_nbr_outputs, nullptr, nullptr},
    LegacyProperty{ioport, "ManualTriggerNbr", read_manual_trigger_nbr, nullptr, nullptr},
    LegacyProperty{ioport, "Configurable", nullptr, read_configurable, nullptr},
    LegacyProperty{ioport, "Direction", nullptr, read_direction, write_direction},
    LegacyProperty{ioport, "Usage", nullptr, read_usage, write_usage},
    LegacyProperty{input, "Name", nullptr, read_input_name, write_name<io_port_set_input_name>},
    LegacyProperty{input, "Trig", nullptr, read_trig,
                   write_activelow<PortSide::Input, unsupported>},
    LegacyProperty{output, "Name", nullptr, read_output_name, write_name<io_port_set_output_name>},
    LegacyProperty{output, "Active", nullptr, read_active,
                   write_activelow<PortSide::Output, refuse_active>},
    LegacyProperty{output, "Button", nullptr, read_button, write_button},
    LegacyProperty{output, "PulseTime", nullptr, read_pulse_time, write_pulse_time},
    LegacyProperty{output, "Mode", nullptr, read_mode, write_mode},
    LegacyProperty{output, "DelayTime", nullptr, read_delay_time, write_delay_time},
};

const LegacyProperty* find_property(const char* interface_name, const char* name) {
  const auto found = std::ranges::find_if(properties, [=](const LegacyProperty& property) {
    return g_str_equal(property.interface_name, interface_name) && g_str_equal(property.name, name);
  });
  return found != properties.end() ? &*found : nullptr;
}

// The port of an object, or nothing with `error`.
IoPortRef port_at(const char* path, GError** error) {
  gint number = 0;
  if (sscanf(path, "/com/norv/Configuration/Legacy/IOControl/IOPort/%d", &number) != 1) {
    refuse(error, "Incorrect port object");
    return nullptr;
  }
  IoPortRef port = io_port_list_get_port(number);
  if (port == nullptr) {
    g_set_error_literal(error, io_control_error_quark(), IO_CONTROL_ERROR_NO_PORT, "No such port.");
  }
  return port;
}

} // namespace

LegacySetting legacy_setting(const IoPort& port, Setting setting) {
  switch (setting) {
  case Setting::InputName:
    return {input, "Name", c_str_or_null(port.input_name)};
  case Setting::OutputName:
    return {output, "Name", c_str_or_null(port.output_name)};
  case Setting::InputSense:
    return {input, "Trig", open_or_closed(port.activelow_input)};
  case Setting::OutputSense:
    return {output, "Active", open_or_closed(port.activelow_output)};
  case Setting::Direction:
    return {ioport, "Direction", direction_word(port.direction)};
  case Setting::Usage:
    return {ioport, "Usage", port.usage.c_str()};
  }
  g_assert_not_reached();
}

GVariant* legacy_property_get(const char* path, const char* interface_name, const char* name,
                              GError** error) {
  const LegacyProperty* const property = find_property(interface_name, name);
  if (property != nullptr && property->read_device != nullptr) {
    return property->read_device();
  }
  const auto port = port_at(path, error);
  if (port == nullptr) {
    return nullptr;
  }
  GVariant* const value = property != nullptr ? property->read(port.get()) : nullptr;
  if (value == nullptr) {
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_INVALID_ARGS,
                "Property '%s' has no value for port %d", name, port->number);
  }
  return value;
}

bool legacy_property_set(const char* path, const char* interface_name, const LegacyWrite& write) {
  const auto port = port_at(path, write.error);
  if (port == nullptr) {
    return false;
  }
  const LegacyProperty* const property = find_property(interface_name, write.name);
  return property != nullptr && property->write != nullptr ? property->write(port.get(), write)
                                                           : unsupported(write);
}
