#include "wexctl/ports.h"

#include "wexctl/output.h"
#include "wexctl/sequence.h"
#include "wexctl/supervised.h"
#include "wexctl/vigil.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>

namespace wexctl {

namespace {

std::string take(gchar* text) {
  std::string copy = text != nullptr ? text : "";
  g_free(text);
  return copy;
}

std::string kind(const PortInfo& port) {
  const std::string direction = port.input ? "input" : "output";
  return port.configurable ? direction + " (switchable)" : direction;
}

std::string shown_as(const PortInfo& port, const PortDetails& more) {
  return port.input ? more.input_name : more.output_name;
}

std::string property_list(const PortInfo& port) {
  std::string list;
  for (const auto& property : port.properties) {
    if (property.value) {
      list += (list.empty() ? "" : ", ") + property.key;
    }
  }
  return list;
}

Json port_json(const PortInfo& port, const PortDetails& more) {
  Json properties = Json::object();
  for (const auto& property : port.properties) {
    properties[property.key] = property.value;
  }
  Json json{{"number", port.number},
            {"name", port.name},
            {"state", port.state},
            {"direction", port.input ? "input" : "output"},
            {"configurable", port.configurable},
            {"active_low", port.activelow},
            {"input_name", more.input_name},
            {"output_name", more.output_name},
            {"active_input", more.active_input},
            {"active_output", more.active_output},
            {"usage", more.usage},
            {"properties", properties}};
  if (more.supervised) {
    json["supervised"] = *more.supervised;
  }
  return json;
}

// A supervised line has more than two states.
std::string state_word(const PortInfo& port, const PortDetails& more) {
  return more.supervised ? *more.supervised : on_or_off(port.state);
}

constexpr std::array columns{
    PortColumn{"no", "No", [](auto& port, auto&) { return std::to_string(port.number); }},
    PortColumn{"name", "Port", [](auto& port, auto&) { return port.name; }},
    PortColumn{"shown", "Shown as", shown_as},
    PortColumn{"kind", "Kind", [](auto& port, auto&) { return kind(port); }},
    PortColumn{"state", "State", state_word},
    PortColumn{"active", "Active",
               [](auto& port, auto&) { return std::string(port.activelow ? "open" : "closed"); }},
    PortColumn{"usage", "Usage", [](auto&, auto& more) { return more.usage; }},
    PortColumn{"properties", "Properties", [](auto& port, auto&) { return property_list(port); }},
};

// All of them unless some are wanted, in the order in which they are.
std::vector<PortColumn> chosen_columns(const std::vector<std::string>& wanted) {
  if (wanted.empty()) {
    return {columns.begin(), columns.end()};
  }
  std::vector<PortColumn> chosen;
  for (const auto& name : wanted) {
    std::ranges::copy_if(columns, std::back_inserter(chosen),
                         [&](const PortColumn& column) { return name == column.name; });
  }
  return chosen;
}

// By reference, so that the error is looked at after the call that sets it.
void check(gboolean done, GError*& error) {
  if (!done) {
    throw_bus_error(error);
  }
}

// The port, which must be there and be driven by somebody.
PortInfo output(const Daemon& daemon, guint number) {
  auto port = daemon.port(number);
  if (port.input) {
    throw CommandError(Status::Refused, fmt::format("port {} is an input", number));
  }
  return port;
}

void set_state(const Daemon& daemon, guint number, bool state) {
  GError* error = nullptr;
  check(iocontrol_state_call_set_state_sync(daemon.state(), number, state, nullptr, &error), error);
}

// Which of two words about one port counts would be a guess.
std::vector<guint> distinct_numbers(const Daemon& daemon, const std::vector<std::string>& ports) {
  std::vector<guint> numbers;
  for (const auto& port : ports) {
    const guint number = daemon.resolve(port);
    if (std::ranges::find(numbers, number) != numbers.end()) {
      throw CommandError(Status::Usage, fmt::format("port {} is told twice", number));
    }
    numbers.push_back(number);
  }
  return numbers;
}

// The side that a setting is meant for: the one told, or the one in use.
bool input_side(const Daemon& daemon, guint number, Side side) {
  return side ? *side : daemon.port(number).input;
}

// Heeds what was told since before the start.
struct SequenceEnd {
  Vigil vigil;
  guint number;

  static void on_done(IOControlState* /*proxy*/, gint port, gpointer data) {
    auto* end = static_cast<SequenceEnd*>(data);
    if (port == static_cast<gint>(end->number)) {
      end->vigil.finish();
    }
  }
};

struct ConnectorKind {
  const char* word;
  const char* description;
};

constexpr std::array connector_kinds{ConnectorKind{"video", "video connector"},
                                     ConnectorKind{"audio", "audio connector"},
                                     ConnectorKind{"all", "*"}};

} // namespace

Side parse_side(const std::string& text) {
  if (text == "input") {
    return true;
  }
  if (text == "output") {
    return false;
  }
  throw CommandError(Status::Usage, fmt::format("'{}' is neither input nor output", text));
}

bool parse_state(const std::string& text) {
  if (text == "on" || text == "1" || text == "true") {
    return true;
  }
  if (text == "off" || text == "0" || text == "false") {
    return false;
  }
  throw CommandError(Status::Usage, fmt::format("'{}' is neither on nor off", text));
}

PortDetails port_details(const Daemon& daemon, const PortInfo& port) {
  PortDetails result;
  if (!port.has("ioport") || port.number < 0) {
    return result;
  }
  const auto number = static_cast<guint>(port.number);
  gchar* first = nullptr;
  gchar* second = nullptr;
  if (iocontrol_state_call_get_names_sync(daemon.state(), number, &first, &second, nullptr,
                                          nullptr)) {
    result.input_name = take(first);
    result.output_name = take(second);
  }
  if (iocontrol_state_call_get_usage_sync(daemon.state(), number, &first, nullptr, nullptr)) {
    result.usage = take(first);
  }
  if (iocontrol_state_call_get_active_sync(daemon.state(), number, &first, &second, nullptr,
                                           nullptr)) {
    result.active_input = take(first);
    result.active_output = take(second);
  }
  result.supervised = supervised_word(daemon, port.number, port.input);
  return result;
}

const PortColumn& port_column(std::string_view name) {
  return *std::ranges::find_if(columns,
                               [&](const PortColumn& column) { return name == column.name; });
}

std::vector<std::string> list_column_names() {
  std::vector<std::string> names;
  std::ranges::transform(columns, std::back_inserter(names), &PortColumn::name);
  return names;
}

void list_ports(const Daemon& daemon, bool json, const std::vector<std::string>& wanted) {
  const auto chosen = chosen_columns(wanted);
  Json array = Json::array();
  std::vector<std::string> headings;
  std::ranges::transform(chosen, std::back_inserter(headings), &PortColumn::heading);
  Table table(headings);
  for (const auto& port : daemon.ports()) {
    const auto more = port_details(daemon, port);
    array.push_back(port_json(port, more));
    std::vector<std::string> row;
    std::ranges::transform(chosen, std::back_inserter(row),
                           [&](const PortColumn& column) { return column.value(port, more); });
    table.add(row);
  }
  if (json) {
    print_json(array);
  } else {
    table.print();
  }
}

void get_port(const Daemon& daemon, const std::string& port, bool json) {
  const guint number = daemon.resolve(port);
  const auto info = daemon.port(number);
  const auto more = port_details(daemon, info);
  if (json) {
    print_json(port_json(info, more));
    return;
  }
  print("port {} {}: {}\n", info.number, printable(info.name),
        coloured(info.state ? Colour::Green : Colour::Dim, state_word(info, more)));
  print("  kind        {}\n", kind(info));
  print("  input side  '{}', {}\n", printable(more.input_name), more.active_input);
  print("  output side '{}', {}\n", printable(more.output_name), more.active_output);
  print("  usage       '{}'\n", printable(more.usage));
  print("  properties  {}\n", printable(property_list(info)));
}

void set_ports(const Daemon& daemon, const std::vector<Setting>& settings) {
  std::vector<std::string> names;
  std::ranges::transform(settings, std::back_inserter(names), &Setting::port);
  const auto numbers = distinct_numbers(daemon, names);
  // Of one port the daemon says all there is to say.
  if (numbers.size() > 1) {
    for (const guint number : numbers) {
      output(daemon, number);
    }
  }
  for (size_t i = 0; i < numbers.size(); i++) {
    set_state(daemon, numbers[i], settings[i].state);
  }
}

void toggle_ports(const Daemon& daemon, const std::vector<std::string>& ports) {
  std::vector<PortInfo> found;
  for (const guint number : distinct_numbers(daemon, ports)) {
    found.push_back(output(daemon, number));
  }
  for (const auto& port : found) {
    set_state(daemon, static_cast<guint>(port.number), !port.state);
  }
}

void port_direction(const Daemon& daemon, const std::string& port, const std::string& direction) {
  const guint number = daemon.resolve(port);
  GError* error = nullptr;
  if (!direction.empty()) {
    check(iocontrol_state_call_set_direction_sync(daemon.state(), number, direction.c_str(),
                                                  nullptr, &error),
          error);
    return;
  }
  gchar* current = nullptr;
  check(iocontrol_state_call_get_direction_sync(daemon.state(), number, &current, nullptr, &error),
        error);
  print("{}\n", take(current));
}

void port_active(const Daemon& daemon, const std::string& port, const std::string& sense,
                 Side side) {
  const guint number = daemon.resolve(port);
  GError* error = nullptr;
  if (!sense.empty()) {
    check(iocontrol_state_call_set_active_sync(daemon.state(), number,
                                               input_side(daemon, number, side), sense.c_str(),
                                               nullptr, &error),
          error);
    return;
  }
  gchar* input = nullptr;
  gchar* output = nullptr;
  check(iocontrol_state_call_get_active_sync(daemon.state(), number, &input, &output, nullptr,
                                             &error),
        error);
  print("input {}\noutput {}\n", take(input), take(output));
}

void port_name(const Daemon& daemon, const std::string& port,
               const std::optional<std::string>& name, Side side) {
  const guint number = daemon.resolve(port);
  GError* error = nullptr;
  if (name) {
    check(iocontrol_state_call_set_name_sync(daemon.state(), number,
                                             input_side(daemon, number, side), name->c_str(),
                                             nullptr, &error),
          error);
    return;
  }
  gchar* input = nullptr;
  gchar* output = nullptr;
  check(
      iocontrol_state_call_get_names_sync(daemon.state(), number, &input, &output, nullptr, &error),
      error);
  print("input {}\noutput {}\n", printable(take(input)), printable(take(output)));
}

void port_usage(const Daemon& daemon, const std::string& port,
                const std::optional<std::string>& usage) {
  const guint number = daemon.resolve(port);
  GError* error = nullptr;
  if (usage) {
    check(iocontrol_state_call_set_usage_sync(daemon.state(), number, usage->c_str(), nullptr,
                                              &error),
          error);
    return;
  }
  gchar* current = nullptr;
  check(iocontrol_state_call_get_usage_sync(daemon.state(), number, &current, nullptr, &error),
        error);
  print("{}\n", printable(take(current)));
}

void set_virtual(const Daemon& daemon, const std::string& port, const std::string& state) {
  const bool active = parse_state(state);
  GError* error = nullptr;
  check(iocontrol_state_call_set_virtual_sync(daemon.state(), daemon.resolve(port), active, nullptr,
                                              &error),
        error);
}

void run_sequence(const Daemon& daemon, const std::string& port, const std::string& sequence,
                  bool is_virtual, bool wait) {
  const auto steps = parse_sequence(sequence);
  const guint number = daemon.resolve(port);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a(bi)"));
  for (const auto& step : steps) {
    g_variant_builder_add(&builder, "(bi)", static_cast<gboolean>(step.state), step.duration_ms);
  }
  SequenceEnd end{.vigil{daemon, Vigil::Awaits::WordOfDaemon}, .number = number};
  const SignalHandler done(daemon.state(), "action-sequence-done", G_CALLBACK(SequenceEnd::on_done),
                           &end);
  GError* error = nullptr;
  check(iocontrol_state_call_start_action_sequence_sync(
            daemon.state(), number, is_virtual, g_variant_builder_end(&builder), nullptr, &error),
        error);
  if (wait) {
    end.vigil.wait("it went before the sequence ended");
  }
}

// A state is set after the end, so that no step of the sequence undoes it. What cannot be set
// leaves the sequence running, too.
void stop_sequence(const Daemon& daemon, const std::string& port,
                   const std::optional<std::string>& state) {
  const auto active = state ? std::optional(parse_state(*state)) : std::nullopt;
  const guint number = daemon.resolve(port);
  if (active) {
    output(daemon, number);
  }
  GError* error = nullptr;
  check(iocontrol_manager1_call_stop_sequence_sync(daemon.manager(), number, nullptr, &error),
        error);
  if (active) {
    set_state(daemon, number, *active);
  }
}

void drop_ports(const Daemon& daemon, const std::vector<std::string>& names, bool json) {
  std::vector<const gchar*> asked;
  asked.reserve(names.size() + 1);
  for (const auto& name : names) {
    asked.push_back(name.c_str());
  }
  asked.push_back(nullptr);
  g_auto(GStrv) dropped = nullptr;
  GError* error = nullptr;
  check(iocontrol_state_call_drop_ioports_sync(daemon.state(), asked.data(), &dropped, nullptr,
                                               &error),
        error);
  Json array = Json::array();
  for (gchar** name = dropped; *name != nullptr; name++) {
    array.push_back(*name);
    if (!json) {
      print("{}\n", printable(*name));
    }
  }
  if (json) {
    print_json(array);
  }
  if (array.size() < names.size()) {
    throw CommandError(Status::Refused, "some ports are unknown or not optional and stay");
  }
}

void refresh_ports(const Daemon& daemon) {
  GError* error = nullptr;
  check(iocontrol_state_call_refresh_ioports_sync(daemon.state(), nullptr, &error), error);
}

void show_connectors(const Daemon& daemon, const std::string& description, bool json) {
  Json result = Json::object();
  for (const auto& entry : connector_kinds) {
    if (description != entry.word && description != entry.description) {
      continue;
    }
    GVariant* states = nullptr;
    GError* error = nullptr;
    check(wxd_connector_call_get_connector_states_sync(daemon.connector(), entry.description,
                                                       &states, nullptr, &error),
          error);
    const Variant owned(states);
    Json array = Json::array();
    for (gsize i = 0; i < g_variant_n_children(states); i++) {
      const Variant state(g_variant_get_child_value(states, i));
      array.push_back(g_variant_get_int32(state.get()));
    }
    result = {{"connectors", entry.word}, {"count", array.size()}, {"states", array}};
  }
  if (result.empty()) {
    throw CommandError(Status::Usage, fmt::format("'{}' is not video, audio or all", description));
  }
  if (json) {
    print_json(result);
  } else {
    print("{} {} connectors: {}\n", result["count"].dump(), result["connectors"].get<std::string>(),
          result["states"].dump());
  }
}

} // namespace wexctl
