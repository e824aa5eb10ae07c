// A description is read like the daemon reads it: every element applies to the newest port, and
// attributes of and inside a backend go to that backend.
#include "wexctl/check.h"

#include "platform/log.h"
#include "platform/regular-file.h"
#include "port/ioport.h"
#include "wexctl/check-vocabulary.h"
#include "wexctl/output.h"

#include <fmt/format.h>
#include <glib.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <set>

namespace wexctl {

namespace {

constexpr gint64 most_spi_ports = 6;

struct Place {
  std::string file;
  int line;
};

/// What is known of a port so far.
struct PortSketch {
  Place place;
  std::string name;
  std::string backend;
  std::string type = "input";
  std::optional<gint64> number;
  bool has_hwid = false;
  bool optional = false;
  bool addressable = false;
  bool has_event = false;
  bool has_sio_ctrl = false;
  bool adc_only = false;
  bool has_poll_interval = false;
};

class Checker {
public:
  void read(const std::string& file);
  void finish();
  std::vector<Finding> take() { return std::move(findings_); }

private:
  static void start_element(GMarkupParseContext* context, const gchar* element, const gchar** names,
                            const gchar** values, gpointer self, GError**);
  static void end_element(GMarkupParseContext*, const gchar* element, gpointer self, GError**);

  void tell(Severity severity, const std::string& text);
  void tell_at(const Place& place, Severity severity, const std::string& text);
  void start(const std::string& element, const gchar** names, const gchar** values);
  void start_port(const gchar** names, const gchar** values);
  void start_backend(const gchar** names, const gchar** values);
  void check_words(const std::string& element, const gchar** names, const gchar** values);
  void check_value(const std::string& element, const std::string& name, const std::string& value);
  void tell_misfit(ValueForm form, const std::string& what, const std::string& value);
  void check_range(const gchar** names, const gchar** values);
  void check_keyvalue(const gchar** names, const gchar** values);
  void check_port(const PortSketch& port);
  void check_numbers();

  std::vector<Finding> findings_;
  std::vector<PortSketch> ports_;
  std::string file_;
  GMarkupParseContext* context_ = nullptr;
  bool in_backend_ = false;
};

std::optional<std::string> find_attribute(const gchar** names, const gchar** values,
                                          const char* name) {
  for (; *names != nullptr; names++, values++) {
    if (g_str_equal(*names, name)) {
      return *values;
    }
  }
  return std::nullopt;
}

std::string attribute(const gchar** names, const gchar** values, const char* name) {
  return find_attribute(names, values, name).value_or("");
}

bool is_true(const std::string& text) {
  return g_ascii_strcasecmp(text.c_str(), "true") == 0;
}

const ElementWord* find_element(std::span<const ElementWord> words, std::string_view name) {
  const auto found = std::ranges::find(words, name, &ElementWord::name);
  return found != words.end() ? &*found : nullptr;
}

const AttributeWord* find_attribute(const ElementWord& element, std::string_view name) {
  for (const auto& word : element.attributes) {
    if (word.name == name || word.name == "*") {
      return &word;
    }
  }
  return nullptr;
}

std::string port_text(const PortSketch& port) {
  if (!port.name.empty()) {
    return fmt::format("port '{}'", port.name);
  }
  return port.number ? fmt::format("port {}", *port.number) : std::string("a port");
}

void Checker::tell_at(const Place& place, Severity severity, const std::string& text) {
  findings_.push_back({.file = place.file, .line = place.line, .severity = severity, .text = text});
}

void Checker::tell(Severity severity, const std::string& text) {
  gint line = 0;
  if (context_ != nullptr) {
    g_markup_parse_context_get_position(context_, &line, nullptr);
  }
  tell_at({.file = file_, .line = line}, severity, text);
}

void Checker::start_port(const gchar** names, const gchar** values) {
  gint line = 0;
  g_markup_parse_context_get_position(context_, &line, nullptr);
  PortSketch port{.place = {.file = file_, .line = line}};
  for (gsize i = 0; names[i] != nullptr; i++) {
    const std::string name = names[i];
    if (name == "hwid" && i > 0) {
      tell(Severity::Warning, "'hwid' is no filter here: it must be the first attribute");
    }
    port.has_hwid = port.has_hwid || (name == "hwid" && i == 0);
    const gsize first = port.has_hwid ? 1 : 0;
    if (name == "name" && fits_form(values[i], ValueForm::PortText)) {
      port.name = values[i];
      const auto same = std::ranges::find(ports_, port.name, &PortSketch::name);
      if (same == ports_.end()) {
        continue;
      }
      if (i == first) {
        tell(Severity::Warning, fmt::format("port '{}' replaces the one of {}:{}", port.name,
                                            same->place.file, same->place.line));
        ports_.erase(same);
      } else {
        tell(Severity::Warning,
             fmt::format("a second port '{}' beside the one of {}:{}: 'name' must come first to "
                         "replace it",
                         port.name, same->place.file, same->place.line));
      }
    } else if (name == "optional") {
      port.optional = g_str_equal(values[i], "true");
    }
  }
  ports_.push_back(port);
}

void Checker::start_backend(const gchar** names, const gchar** values) {
  PortSketch& port = ports_.back();
  if (*names != nullptr && !g_str_equal(*names, "name")) {
    tell(Severity::Warning, fmt::format("'{}' before the backend's name is lost", *names));
  }
  const auto name = attribute(names, values, "name");
  if (!backend_known(name)) {
    tell(Severity::Warning, fmt::format("there is no backend '{}'", name));
  } else {
    port.backend = name;
  }
  in_backend_ = *names != nullptr;
}

void Checker::check_value(const std::string& element, const std::string& name,
                          const std::string& value) {
  static const std::map<std::pair<std::string, std::string>, std::set<std::string>> words{
      {{"port_type", "type"}, {"input", "output", "io_ctrl"}},
      {{"param_defaults", "dir"}, {"input", "output"}},
      {{"param_defaults", "port_mode"}, {"bistable", "monostable"}},
      {{"param_defaults", "button_type"}, {"none", "pulse", "actinact"}},
  };
  const auto allowed = words.find({element, name});
  if (allowed == words.end()) {
    return;
  }
  g_autofree gchar* lower = g_ascii_strdown(value.c_str(), -1);
  const bool known =
      element == "port_type" ? allowed->second.contains(value) : allowed->second.contains(lower);
  if (!known) {
    tell(Severity::Warning,
         fmt::format("{} of '{}': '{}' is no value for it", name, element, value));
  }
}

void Checker::tell_misfit(ValueForm form, const std::string& what, const std::string& value) {
  if (form == ValueForm::PortText) {
    tell(Severity::Warning,
         fmt::format("{} has more than {} bytes and is ignored", what, io_port_text_limit));
    return;
  }
  tell(Severity::Warning, fmt::format("{}: '{}' is no {}", what, value,
                                      form == ValueForm::Flag ? "true or false" : "whole number"));
}

// Which words count depends on where the element stands: inside a backend its own come first.
void Checker::check_words(const std::string& element, const gchar** names, const gchar** values) {
  const std::string backend = ports_.empty() ? "" : ports_.back().backend;
  const ElementWord* words =
      in_backend_ ? find_element(backend_vocabulary(backend), element) : nullptr;
  if (words == nullptr) {
    words = find_element(common_vocabulary(), element);
  }
  // The check backend remembers whatever it is given; the plain ones ignore it.
  const bool free_words = in_backend_ && backend == "check";
  if (words == nullptr) {
    if (!free_words && (in_backend_ || *names != nullptr)) {
      tell(Severity::Warning, fmt::format("unknown element '{}' is ignored", element));
    }
    return;
  }
  for (gsize i = 0; names[i] != nullptr; i++) {
    const auto* const word = find_attribute(*words, names[i]);
    if (word == nullptr) {
      if (!free_words) {
        tell(Severity::Warning,
             fmt::format("unknown attribute '{}' of '{}' is ignored", names[i], element));
      }
    } else if (!fits_form(values[i], word->form)) {
      tell_misfit(word->form, fmt::format("{} of '{}'", names[i], element), values[i]);
    }
    check_value(element, names[i], values[i]);
  }
}

// "upper" completes a range with what was told before it.
void Checker::check_range(const gchar** names, const gchar** values) {
  static constexpr std::array needed{"state", "lower"};
  const std::string backend = ports_.back().backend;
  if (backend != "spi" && backend != "iio" && backend != "iio-interrupt") {
    return;
  }
  std::set<std::string> told;
  bool complete = false;
  for (gsize i = 0; names[i] != nullptr; i++) {
    const std::string name = names[i];
    if (complete && (name == "state" || name == "lower")) {
      tell(Severity::Warning, fmt::format("'{}' after 'upper' belongs to the next range", name));
    }
    complete = complete || name == "upper";
    if (!complete) {
      told.insert(name);
    }
  }
  if (!complete) {
    tell(Severity::Warning, "a range without 'upper' is not added");
    return;
  }
  for (const char* name : needed) {
    if (!told.contains(name)) {
      tell(Severity::Warning, fmt::format("a range needs '{}' before 'upper'", name));
    }
  }
  const auto state = attribute(names, values, "state");
  static const std::set<std::string> states{"open", "closed", "short", "cut"};
  if (!state.empty() && !states.contains(state)) {
    tell(Severity::Warning, fmt::format("a range of state '{}' is refused", state));
  }
  const auto lower = g_ascii_strtoll(attribute(names, values, "lower").c_str(), nullptr, 10);
  const auto upper = g_ascii_strtoll(attribute(names, values, "upper").c_str(), nullptr, 10);
  if (lower >= upper || upper > G_MAXUINT16) {
    tell(Severity::Warning, fmt::format("the range {} to {} is refused: lower must be below upper, "
                                        "upper below 65536",
                                        lower, upper));
  }
}

void Checker::check_keyvalue(const gchar** names, const gchar** values) {
  static const std::set<std::string> types{"int", "bool", "double", "string"};
  static const std::set<std::string> placeholders{"PORT_STATUS", "PORT_ACTIVE", "PORT_INACTIVE",
                                                  "PORT_SUPERVISED_STATUS"};
  if (!ports_.back().has_event) {
    tell(Severity::Warning, "a 'keyvalue' without an 'event' is ignored");
    return;
  }
  const auto type = find_attribute(names, values, "type").value_or("string");
  if (!types.contains(type)) {
    tell(Severity::Error,
         fmt::format("type '{}' of a key value would end the daemon: int, bool, double or string",
                     type));
  } else if (type == "double" && placeholders.contains(attribute(names, values, "value"))) {
    tell(Severity::Error, "a placeholder of type 'double' would end the daemon");
  }
}

void Checker::start(const std::string& element, const gchar** names, const gchar** values) {
  if (element == "port") {
    start_port(names, values);
    check_words(element, names, values);
    return;
  }
  if (ports_.empty()) {
    if (find_element(common_vocabulary(), element) != nullptr) {
      tell(Severity::Warning, fmt::format("'{}' before the first port is ignored", element));
    }
    return;
  }
  PortSketch& port = ports_.back();
  if (element == "backend") {
    start_backend(names, values);
    return;
  }
  check_words(element, names, values);
  if (element == "port_no") {
    port.number = g_ascii_strtoll(attribute(names, values, "nbr").c_str(), nullptr, 10);
  } else if (element == "port_type") {
    port.type = attribute(names, values, "type");
  } else if (element == "properties") {
    port.addressable = port.addressable || is_true(attribute(names, values, "ioport"))
                       || is_true(attribute(names, values, "virtual"));
  } else if (element == "event") {
    port.has_event = true;
  } else if (element == "keyvalue") {
    check_keyvalue(names, values);
  } else if (element == "range") {
    check_range(names, values);
  } else if (element == "sio_ctrl") {
    port.has_sio_ctrl = true;
  } else if (element == "device") {
    port.adc_only = port.adc_only || attribute(names, values, "mode") == "adc";
    port.has_poll_interval = port.has_poll_interval || !attribute(names, values, "timeout").empty();
  }
}

void Checker::start_element(GMarkupParseContext* context, const gchar* element, const gchar** names,
                            const gchar** values, gpointer self, GError** /*error*/) {
  auto* checker = static_cast<Checker*>(self);
  checker->context_ = context;
  checker->start(element, names, values);
}

void Checker::end_element(GMarkupParseContext* /*context*/, const gchar* element, gpointer self,
                          GError** /*error*/) {
  if (g_str_equal(element, "backend")) {
    static_cast<Checker*>(self)->in_backend_ = false;
  }
}

void Checker::read(const std::string& file) {
  file_ = file;
  context_ = nullptr;
  std::string text;
  g_autoptr(GError) error = nullptr;
  if (!regular_file_get_contents(file.c_str(), Links::Followed, &text, &error)) {
    tell(Severity::Error, error->message);
    return;
  }
  constexpr GMarkupParser parser{.start_element = start_element,
                                 .end_element = end_element,
                                 .text = nullptr,
                                 .passthrough = nullptr,
                                 .error = nullptr};
  g_autoptr(GMarkupParseContext) context =
      g_markup_parse_context_new(&parser, static_cast<GMarkupParseFlags>(0), this, nullptr);
  context_ = context;
  if (!g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()),
                                    &error)) {
    tell(Severity::Error, error->message);
  } else if (!g_markup_parse_context_end_parse(context, &error)) {
    tell(Severity::Warning, fmt::format("the file is cut short: {}", error->message));
  }
  context_ = nullptr;
}

void Checker::check_port(const PortSketch& port) {
  const auto text = port_text(port);
  if (port.backend.empty()) {
    tell_at(port.place, Severity::Warning,
            fmt::format("{} names no known backend and is dropped", text));
  }
  if (!port.number) {
    tell_at(port.place, Severity::Warning, fmt::format("{} has no number", text));
  }
  if (port.name.empty()) {
    tell_at(port.place, Severity::Note,
            fmt::format("{} has no name: its settings are not saved", text));
  }
  if (!port.addressable) {
    tell_at(
        port.place, Severity::Note,
        fmt::format("{} is neither \"ioport\" nor \"virtual\": no client can address it", text));
  }
  const bool polled = port.backend == "sysfs" || port.backend == "spiadc";
  if (polled && port.type != "input") {
    tell_at(port.place, Severity::Error,
            fmt::format("{}: a {} port that is no input would end the daemon", text, port.backend));
  }
  if (polled && !port.has_poll_interval) {
    tell_at(port.place, Severity::Warning,
            fmt::format("{} has no 'timeout' and would be polled without pause", text));
  }
  const bool needs_sio_ctrl = port.backend == "spi" || (port.backend == "iio" && !port.adc_only);
  if (needs_sio_ctrl && port.type != "output" && !port.has_sio_ctrl) {
    tell_at(port.place, Severity::Error,
            fmt::format("{}: without a 'sio_ctrl' pin it would end the daemon", text));
  }
  if (port.backend == "spi" && port.number
      && (*port.number < 0 || *port.number >= most_spi_ports)) {
    tell_at(port.place, Severity::Warning,
            fmt::format("{}: spi ports have the numbers 0 to {}", text, most_spi_ports - 1));
  }
}

// Of ports with one number the newest stays, unless hardware ids or absence sort them out.
void Checker::check_numbers() {
  std::map<gint64, const PortSketch*> newest;
  for (auto port = ports_.rbegin(); port != ports_.rend(); ++port) {
    if (!port->number || !port->addressable) {
      continue;
    }
    const auto [found, fresh] = newest.emplace(*port->number, &*port);
    if (fresh) {
      continue;
    }
    const bool sorted_out =
        port->has_hwid || found->second->has_hwid || port->optional || found->second->optional;
    tell_at(port->place, sorted_out ? Severity::Note : Severity::Warning,
            fmt::format("number {} is also that of {}:{}, which counts", *port->number,
                        found->second->place.file, found->second->place.line));
  }
}

void Checker::finish() {
  for (const auto& port : ports_) {
    check_port(port);
  }
  check_numbers();
}

const char* severity_word(Severity severity) {
  static constexpr std::array words{"note", "warning", "error"};
  return words[static_cast<size_t>(severity)];
}

Colour severity_colour(Severity severity) {
  static constexpr std::array colours{Colour::Dim, Colour::Yellow, Colour::Red};
  return colours[static_cast<size_t>(severity)];
}

} // namespace

std::vector<Finding> check_descriptions(const std::vector<std::string>& files) {
  Checker checker;
  for (const auto& file : files) {
    checker.read(file);
  }
  checker.finish();
  auto findings = checker.take();
  const auto position = [&](const Finding& finding) {
    return std::pair(std::ranges::find(files, finding.file) - files.begin(), finding.line);
  };
  std::ranges::stable_sort(findings, {}, position);
  return findings;
}

namespace {

// Before a start the journal is told what matters how much.
std::string journal_mark(Severity severity) {
  static const bool told = stream_is_journal(STDOUT_FILENO);
  switch (severity) {
  case Severity::Note:
    return told ? priority_mark(LOG_NOTICE) : "";
  case Severity::Warning:
    return told ? priority_mark(LOG_WARNING) : "";
  case Severity::Error:
    return told ? priority_mark(LOG_ERR) : "";
  }
  return "";
}

} // namespace

bool check_files(const std::vector<std::string>& files, bool json) {
  const auto findings = check_descriptions(files);
  Json array = Json::array();
  for (const auto& finding : findings) {
    array.push_back({{"file", finding.file},
                     {"line", finding.line},
                     {"severity", severity_word(finding.severity)},
                     {"text", finding.text}});
    if (!json) {
      print("{}{}:{}: {}: {}\n", journal_mark(finding.severity), printable(finding.file),
            finding.line,
            coloured(severity_colour(finding.severity), severity_word(finding.severity)),
            printable(finding.text));
    }
  }
  if (json) {
    print_json(array);
  }
  return std::ranges::all_of(
      findings, [](const Finding& finding) { return finding.severity == Severity::Note; });
}

} // namespace wexctl
