// Both texts are built from tables: one row per parameter, one table per group kind.
#include "dbus/legacy-mapping.h"

#include "dbus/legacy-names.h"
#include "port/ioport-list.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <span>
#include <string_view>
#include <utility>

namespace {

using Attributes = std::initializer_list<std::pair<const char*, std::string_view>>;

// Stands in XML for itself.
bool is_plain(char c) {
  return c >= ' ' && c <= '~' && c != '&' && c != '<' && c != '>' && c != '"' && c != '\'';
}

// Builds indented XML, one element a line, two blanks a level; values are escaped.
class XmlWriter {
public:
  void open(const char* element, Attributes attributes = {}) {
    start(element, attributes);
    text_ += ">\n";
    level_++;
  }

  void close(const char* element) {
    level_--;
    indent();
    text_.append("</").append(element).append(">\n");
  }

  void leaf(const char* element, Attributes attributes) {
    start(element, attributes);
    text_ += "/>\n";
  }

  [[nodiscard]] std::string text() && { return std::move(text_); }

private:
  void indent() { text_.append(level_ * 2, ' '); }

  void start(const char* element, Attributes attributes) {
    indent();
    text_.append("<").append(element);
    for (const auto& [name, value] : attributes) {
      text_.append(" ").append(name).append("=\"");
      append_escaped(value);
      text_ += '"';
    }
  }

  // Nearly all values are plain, and the library would copy each of them.
  void append_escaped(std::string_view value) {
    if (std::ranges::all_of(value, is_plain)) {
      text_.append(value);
      return;
    }
    g_autofree gchar* escaped =
        g_markup_escape_text(value.data(), static_cast<gssize>(value.size()));
    text_ += escaped;
  }

  std::string text_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  gsize level_ = 0;
};

// When a parameter is marked read-only.
enum class ReadOnly {
  Never,
  /// Unless the port can be switched.
  FixedDirection,
  /// By "readonly" or the row's own property.
  ByProperty,
};

struct Option {
  const char* name;
  const char* value;
};

struct Parameter {
  const char* name;
  const char* type;
  const char* legacy_type;
  const char* access;
  ReadOnly read_only = ReadOnly::Never;
  const char* read_only_property = nullptr;
  std::span<const Option> more_options = {};
};

struct GroupKind {
  /// Follows "root.IOPort.I<number>".
  const char* suffix;
  const char* interface_name;
  /// Whether a port has such a group; nullptr: every port has.
  bool (*applies)(const IoPort* port);
  std::span<const Parameter> parameters;
};

struct FixedGroup {
  const char* name;
  const char* parameter;
};

constexpr const char* user_access = "admin:3;operator:1";

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
void write_object(XmlWriter& xml, const std::string& path) {
  xml.open("object", {{"name", path}});
  xml.open("interfaces");
  for (const char* interface_name :
       {legacy_ioport_interface, legacy_input_interface, legacy_output_interface}) {
    xml.leaf("interface", {{"name", interface_name}, {"emitspropertieschanged", "true"}});
  }
  xml.close("interfaces");
  xml.close("object");
}

std::string read_only_prefix(IoPort* port, const Parameter& parameter) {
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

void write_type(XmlWriter& xml, const char* type) {
  if (g_str_equal(type, "bool")) {
    xml.leaf("type", {{"type", type}, {"truevalue", "yes"}, {"falsevalue", "no"}});
  } else {
    xml.leaf("type", {{"type", type}});
  }
}

void write_option(XmlWriter& xml, const char* name, std::string_view value) {
  xml.leaf("legacyoption", {{"name", name}, {"value", value}});
}

void write_parameter(XmlWriter& xml, const char* name, const Parameter& parameter,
                     const char* interface_name, const std::string& object,
                     const std::string& prefix) {
  xml.open("parameter", {{"name", name}});
  xml.open("property", {{"dbus", legacy_ioport_interface},
                        {"object", object},
                        {"interface", interface_name},
                        {"name", name}});
  write_type(xml, parameter.type);
  xml.close("property");
  xml.open("legacyoptions");
  write_option(xml, "type", prefix + parameter.legacy_type);
  write_option(xml, "accessControl", parameter.access);
  for (const auto& option : parameter.more_options) {
    write_option(xml, option.name, option.value);
  }
  xml.close("legacyoptions");
  xml.close("parameter");
}

void write_fixed_groups(XmlWriter& xml) {
  for (const auto& group : fixed_groups) {
    xml.open("group", {{"name", group.name}});
    write_parameter(xml, group.parameter, fixed_parameter.front(), legacy_ioport_interface,
                    legacy_port_0_path, "");
    xml.close("group");
  }
}

void write_port_group(XmlWriter& xml, const GroupKind& kind, IoPort* port) {
  xml.open("group", {{"name", "root.IOPort.I" + std::to_string(port->number) + kind.suffix}});
  for (const auto& parameter : kind.parameters) {
    write_parameter(xml, parameter.name, parameter, kind.interface_name, object_path(port),
                    read_only_prefix(port, parameter));
  }
  xml.close("group");
}

} // namespace

std::string legacy_registry_text() {
  XmlWriter xml;
  xml.open("service", {{"name", legacy_ioport_interface}});
  xml.open("objects");
  bool any = false;
  for_each_ioport([&](const IoPort* port) {
    write_object(xml, object_path(port));
    any = true;
  });
  if (!any) {
    write_object(xml, legacy_port_0_path);
  }
  xml.close("objects");
  xml.close("service");
  return std::move(xml).text();
}

std::string legacy_mapping_text() {
  XmlWriter xml;
  xml.open("mapping");
  write_fixed_groups(xml);
  for (const auto& kind : group_kinds) {
    for_each_ioport([&](IoPort* port) {
      if (kind.applies == nullptr || kind.applies(port)) {
        write_port_group(xml, kind, port);
      }
    });
  }
  xml.close("mapping");
  return std::move(xml).text();
}
