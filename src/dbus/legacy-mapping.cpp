// Both texts are built from tables: one row per parameter, one table per group kind.
#include "dbus/legacy-mapping.h"

#include "dbus/legacy-names.h"
#include "port/ioport-list.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <span>
#include <string_view>

namespace {

constexpr std::string_view xml_head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// Everything that goes into these texts stands for itself in XML: our own names, and numbers.
void append(std::string& text, std::initializer_list<std::string_view> pieces) {
  for (const auto piece : pieces) {
    text += piece;
  }
}

// When a parameter is marked read-only.
enum class ReadOnly {
  Never,
  /// Unless the port can be switched.
  FixedDirection,
  /// By "readonly" or the row's own property.
  ByProperty,
};

struct Option {
  std::string_view name;
  std::string_view value;
};

struct Parameter {
  std::string_view name;
  std::string_view type;
  std::string_view legacy_type;
  std::string_view access;
  ReadOnly read_only = ReadOnly::Never;
  const char* read_only_property = nullptr;
  std::span<const Option> more_options = {};
};

struct GroupKind {
  /// Follows "root.IOPort.I<number>".
  std::string_view suffix;
  std::string_view interface_name;
  /// Whether a port has such a group; nullptr: every port has.
  bool (*applies)(const IoPort* port);
  std::span<const Parameter> parameters;
};

struct FixedGroup {
  std::string_view name;
  std::string_view parameter;
};

constexpr std::string_view user_access = "admin:3;operator:1";

constexpr std::array fixed_groups{
    FixedGroup{"root.Input", "NbrOfInputs"},
    FixedGroup{"root.Output", "NbrOfOutputs"},
    FixedGroup{"root.Properties.IO", "ManualTriggerNbr"},
};

constexpr std::array fixed_parameter{
    Parameter{"", "int", "readonly:int:maxlen=3,min=0,max=100", "admin:1;operator:1;viewer:1"},
};

constexpr std::array port_parameters{
    Parameter{"Configurable", "bool", "readonly:yes_no", "admin:1;operator:1"},
    Parameter{"Direction", "string", "enum:input|Input, output|Output", user_access,
              ReadOnly::FixedDirection},
    Parameter{"Usage", "string", "string", user_access, ReadOnly::ByProperty, "readonly_Usage"},
};

constexpr std::array trig_options{
    Option{"nicename", "Generate when circuit is..."},
    Option{"daemon", "wxd"},
    Option{"signal", "1"},
};

constexpr std::array input_parameters{
    Parameter{"Name", "string", "string", user_access, ReadOnly::ByProperty, "readonly_Name"},
    Parameter{"Trig", "string", "enum:closed|Closed, open|Open", user_access, ReadOnly::ByProperty,
              "readonly_Trig", trig_options},
};

constexpr std::array output_parameters{
    Parameter{"DelayTime", "int", "int", user_access},
    Parameter{"Mode", "string", "enum:bistable|Bistable, monostable|Monostable", user_access},
    Parameter{"Name", "string", "string", user_access, ReadOnly::ByProperty, "readonly_Name"},
    Parameter{"Active", "string", "enum:closed|Closed, open|Open", user_access},
    Parameter{"Button", "string", "enum: none|None, pulse|Pulse, actinact|Active/Inactive",
              user_access},
    Parameter{"PulseTime", "int", "int", user_access},
};

// One pass over the ports each, in this order.
constexpr std::array group_kinds{
    GroupKind{"", legacy_ioport_interface, nullptr, port_parameters},
    GroupKind{".Input", legacy_input_interface, io_port_has_input_side, input_parameters},
    GroupKind{".Output", legacy_output_interface, io_port_has_output_side, output_parameters},
};

std::string object_path(const IoPort* port) {
  return std::string(legacy_base_path) + '/' + std::to_string(port->number);
}

template <typename Use>
void for_each_ioport(Use use) {
  for (guint i = 0; i < io_port_list_length(); i++) {
    const IoPortRef port = io_port_list_nth_data(i);
    if (port != nullptr && io_port_get_property(port.get(), "ioport")) {
      use(port.get());
    }
  }
}

// All three interfaces are listed whatever the port's kind.
void write_object(std::string& text, const std::string& path) {
  append(text, {"    <object name=\"", path, "\">\n      <interfaces>\n"});
  for (const std::string_view interface_name :
       {legacy_ioport_interface, legacy_input_interface, legacy_output_interface}) {
    append(text, {"        <interface name=\"", interface_name,
                  "\" emitspropertieschanged=\"true\"/>\n"});
  }
  text += "      </interfaces>\n    </object>\n";
}

std::string_view read_only_prefix(IoPort* port, const Parameter& parameter) {
  bool read_only = false;
  switch (parameter.read_only) {
  case ReadOnly::Never:
    break;
  case ReadOnly::FixedDirection:
    read_only = port->type != PORT_IO_CTRL;
    break;
  case ReadOnly::ByProperty:
    read_only = io_port_get_property(port, "readonly")
                || io_port_get_property(port, parameter.read_only_property);
    break;
  }
  return read_only ? "readonly:" : "";
}

void write_option(std::string& text, std::string_view name, std::string_view prefix,
                  std::string_view value) {
  append(text, {"        <legacyoption name=\"", name, "\" value=\"", prefix, value, "\"/>\n"});
}

void write_parameter(std::string& text, std::string_view name, const Parameter& parameter,
                     std::string_view interface_name, std::string_view object,
                     std::string_view prefix) {
  append(text, {"    <parameter name=\"", name, "\">\n      <property dbus=\"",
                legacy_ioport_interface, "\" object=\"", object, "\" interface=\"", interface_name,
                "\" name=\"", name, "\">\n        <type type=\"", parameter.type,
                parameter.type == "bool" ? "\" truevalue=\"yes\" falsevalue=\"no" : "",
                "\"/>\n      </property>\n      <legacyoptions>\n"});
  write_option(text, "type", prefix, parameter.legacy_type);
  write_option(text, "accessControl", "", parameter.access);
  for (const auto& option : parameter.more_options) {
    write_option(text, option.name, "", option.value);
  }
  text += "      </legacyoptions>\n    </parameter>\n";
}

void write_fixed_groups(std::string& text) {
  for (const auto& group : fixed_groups) {
    append(text, {"  <group name=\"", group.name, "\">\n"});
    write_parameter(text, group.parameter, fixed_parameter.front(), legacy_ioport_interface,
                    legacy_port_0_path, "");
    text += "  </group>\n";
  }
}

void write_port_group(std::string& text, const GroupKind& kind, IoPort* port) {
  const std::string object = object_path(port);
  append(text,
         {"  <group name=\"root.IOPort.I", std::to_string(port->number), kind.suffix, "\">\n"});
  for (const auto& parameter : kind.parameters) {
    write_parameter(text, parameter.name, parameter, kind.interface_name, object,
                    read_only_prefix(port, parameter));
  }
  text += "  </group>\n";
}

} // namespace

std::string legacy_registry_text() {
  std::string text(xml_head);
  append(text, {"<service name=\"", legacy_ioport_interface, "\">\n  <objects>\n"});
  bool any = false;
  for_each_ioport([&](const IoPort* port) {
    write_object(text, object_path(port));
    any = true;
  });
  if (!any) {
    write_object(text, legacy_port_0_path);
  }
  text += "  </objects>\n</service>\n";
  return text;
}

std::string legacy_mapping_text() {
  std::string text(xml_head);
  text += "<mapping>\n";
  write_fixed_groups(text);
  for (const auto& kind : group_kinds) {
    for_each_ioport([&](IoPort* port) {
      if (kind.applies == nullptr || kind.applies(port)) {
        write_port_group(text, kind, port);
      }
    });
  }
  text += "</mapping>\n";
  return text;
}
