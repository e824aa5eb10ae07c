// A description is read like the daemon reads it: every element applies to the newest port, and
// attributes of and inside a backend go to that backend.
#include "description/check.h"

#include "description/check-port.h"
#include "description/common-vocabulary.h"
#include "description/limits.h"
#include "description/near-word.h"
#include "description/port-sketch.h"
#include "description/reader.h"
#include "platform/regular-file.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <vector>

namespace {

// The value of an attribute that comes once; nothing when it is not there.
std::optional<std::string> value_of(const DescribedElement& element, std::string_view name) {
  const auto found = std::ranges::find_if(
      element.attributes, [name](const auto& attribute) { return name == attribute.name; });
  return found != element.attributes.end() ? std::optional<std::string>(found->value)
                                           : std::nullopt;
}

bool is_true(const std::optional<std::string>& text) {
  return text && g_ascii_strcasecmp(text->c_str(), "true") == 0;
}

std::vector<std::string_view> names_of(const auto& words) {
  std::vector<std::string_view> names;
  names.reserve(words.size());
  for (const auto& word : words) {
    names.emplace_back(word.name);
  }
  return names;
}

// "a, b or c"
std::string listed(const std::vector<std::string_view>& words) {
  std::string text;
  for (gsize i = 0; i < words.size(); i++) {
    text += i == 0 ? "" : i + 1 == words.size() ? " or " : ", ";
    text += words[i];
  }
  return text;
}

// Who looks for a mistake finds it sooner with the right word before the eyes.
std::string meant(std::string_view text, const std::vector<std::string_view>& words) {
  const auto near = near_word(text, words);
  return near.empty() ? "" : fmt::format(": did you mean \"{}\"?", near);
}

std::string misfit(const AttributeWord& attribute, const std::string& what,
                   const std::string& value) {
  switch (attribute.form) {
  case ValueForm::PortText:
    return fmt::format("{} has more than {} bytes and is ignored", what, io_port_text_limit);
  case ValueForm::Flag:
    return fmt::format("{}: '{}' is no true or false and is ignored", what, value);
  case ValueForm::Mark:
  case ValueForm::Switch:
    return fmt::format("{}: '{}' is no true or false and counts as false", what, value);
  case ValueForm::SwitchOff:
    return fmt::format("{}: '{}' is no true or false and counts as true", what, value);
  case ValueForm::Words:
  case ValueForm::WordsInAnyCase: {
    const std::vector<std::string_view> words(attribute.words.begin(), attribute.words.end());
    const auto near = meant(value, words);
    return fmt::format("{}: '{}' is no value for it, {} would be{}", what, value, listed(words),
                       near);
  }
  default:
    return fmt::format("{}: '{}' is no whole number", what, value);
  }
}

class Checker {
public:
  void read(const std::string& file);
  void finish();
  std::vector<Finding> take() { return std::move(findings_); }

private:
  void report(Severity severity, const std::string& text);
  template <typename... Arguments>
  void warn(fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    report(Severity::Warning, fmt::format(text, std::forward<Arguments>(arguments)...));
  }
  void report_at(const DescribedPlace& place, Severity severity, const std::string& text);

  void start(const DescribedElement& element);
  void start_port(const DescribedElement& element);
  void name_port(PortSketch& port, const std::string& name, gsize position);
  void start_backend(const DescribedElement& element);
  const ElementWord* words_for(const char* element) const;
  void check_words(const DescribedElement& element);
  void check_attribute(const ElementWord& words, const DescribedAttribute& attribute);
  void report_unknown_element(const DescribedElement& element);
  void sketch(const DescribedElement& element);
  void sketch_backend(const DescribedElement& element);
  void check_range(const DescribedElement& element);
  void check_limits(const DescribedElement& element);
  void check_key_value(const DescribedElement& element);
  void check_numbers();

  PortSketch& port() { return ports_.back(); }

  std::vector<Finding> findings_;
  std::vector<PortSketch> ports_;
  DescribedPlace place_;
  bool in_backend_ = false;
};

void Checker::report_at(const DescribedPlace& place, Severity severity, const std::string& text) {
  findings_.push_back({.file = place.file, .line = place.line, .severity = severity, .text = text});
}

void Checker::report(Severity severity, const std::string& text) {
  report_at(place_, severity, text);
}

void Checker::name_port(PortSketch& port, const std::string& name, gsize position) {
  port.name = name;
  const auto same = std::ranges::find(ports_, name, &PortSketch::name);
  if (same == ports_.end()) {
    return;
  }
  const auto where = fmt::format("{}:{}", same->place.file, same->place.line);
  if (position == (port.has_hwid ? 1 : 0)) {
    warn("port '{}' replaces the one of {}", name, where);
    ports_.erase(same);
  } else {
    warn("a second port '{}' beside the one of {}: 'name' must come first to replace it", name,
         where);
  }
}

void Checker::start_port(const DescribedElement& element) {
  PortSketch port{.place = place_};
  for (gsize i = 0; i < element.attributes.size(); i++) {
    const auto& [name, value] = element.attributes[i];
    if (g_str_equal(name, "hwid")) {
      port.has_hwid = port.has_hwid || i == 0;
      if (i > 0) {
        warn("'hwid' is no filter here: it must be the first attribute");
      }
    } else if (g_str_equal(name, "name") && std::string_view(value).size() <= io_port_text_limit) {
      name_port(port, value, i);
    } else if (g_str_equal(name, "optional")) {
      port.optional = g_str_equal(value, "true");
    }
  }
  ports_.push_back(port);
}

void Checker::start_backend(const DescribedElement& element) {
  if (!element.attributes.empty() && !g_str_equal(element.attributes.front().name, "name")) {
    warn("'{}' before the backend's name is lost", element.attributes.front().name);
  }
  const auto name = value_of(element, "name").value_or("");
  const auto* const backend = find_backend_vocabulary(name);
  if (backend != nullptr) {
    port().backend = backend;
  } else {
    std::vector<std::string_view> names;
    for (const auto* known : backend_vocabularies()) {
      names.emplace_back(known->name);
    }
    const auto near = meant(name, names);
    warn("there is no backend '{}'{}", name, near.empty() ? ", but " + listed(names) : near);
  }
  in_backend_ = !element.attributes.empty();
}

// Which words count depends on where the element stands: inside a backend its own come first.
const ElementWord* Checker::words_for(const char* element) const {
  const auto* const backend = ports_.back().backend;
  if (in_backend_ && backend != nullptr) {
    if (const auto* const words = find_element(backend->elements, element)) {
      return words;
    }
  }
  return find_element(common_elements, element);
}

void Checker::report_unknown_element(const DescribedElement& element) {
  auto names = names_of(common_elements);
  if (in_backend_ && port().backend != nullptr) {
    std::ranges::copy(names_of(port().backend->elements), std::back_inserter(names));
  }
  warn("unknown element '{}' is ignored{}", element.name, meant(element.name, names));
}

void Checker::check_attribute(const ElementWord& words, const DescribedAttribute& attribute) {
  const auto* word = find_attribute(words.attributes, attribute.name);
  const AttributeWord other{attribute.name,
                            words.others != nullptr ? *words.others : ValueForm::Text, ""};
  if (word == nullptr && words.others != nullptr) {
    word = &other;
  }
  if (word == nullptr) {
    warn("unknown attribute '{}' of '{}' is ignored{}", attribute.name, words.name,
         meant(attribute.name, names_of(words.attributes)));
  } else if (word->form != ValueForm::JudgedWords && !has_form(*word, attribute.value)) {
    report(Severity::Warning,
           misfit(*word, fmt::format("{} of '{}'", attribute.name, words.name), attribute.value));
  }
}

void Checker::check_words(const DescribedElement& element) {
  const auto* const words = words_for(element.name);
  const bool any_word = in_backend_ && port().backend != nullptr && port().backend->takes_all;
  if (words == nullptr) {
    if (!any_word && (in_backend_ || !element.attributes.empty())) {
      report_unknown_element(element);
    }
    return;
  }
  for (const auto& attribute : element.attributes) {
    if (!any_word || find_attribute(words->attributes, attribute.name) != nullptr) {
      check_attribute(*words, attribute);
    }
  }
}

// "upper" completes a range with what was told before it.
void Checker::check_range(const DescribedElement& element) {
  std::set<std::string_view> told;
  bool complete = false;
  for (const auto& [name, value] : element.attributes) {
    if (complete && (g_str_equal(name, "state") || g_str_equal(name, "lower"))) {
      warn("'{}' after 'upper' belongs to the next range", name);
    }
    complete = complete || g_str_equal(name, "upper");
    if (!complete) {
      told.insert(name);
    }
  }
  if (!complete) {
    warn("a range without 'upper' is not added");
    return;
  }
  for (const char* name : {"state", "lower"}) {
    if (!told.contains(name)) {
      warn("a range needs '{}' before 'upper'", name);
    }
  }
  check_limits(element);
}

void Checker::check_limits(const DescribedElement& element) {
  const auto state = value_of(element, "state").value_or("");
  if (!state.empty()
      && std::ranges::find(supervised_state_names, state) == supervised_state_names.end()) {
    warn("a range of state '{}' is refused", state);
  }
  const auto number = [&](const char* name) {
    return g_ascii_strtoll(value_of(element, name).value_or("").c_str(), nullptr, 10);
  };
  const auto lower = number("lower");
  const auto upper = number("upper");
  if (lower >= upper || upper > G_MAXUINT16) {
    warn("the range {} to {} is refused: lower must be below upper, upper below 65536", lower,
         upper);
  }
}

void Checker::check_key_value(const DescribedElement& element) {
  if (!port().event) {
    warn("a 'keyvalue' without an 'event' is ignored");
    return;
  }
  if (std::ranges::find(builtin_event_names, *port().event) != builtin_event_names.end()) {
    report(Severity::Note, fmt::format("a 'keyvalue' of '{}' has no effect", *port().event));
    return;
  }
  const auto type = value_of(element, "type").value_or("string");
  const auto value = value_of(element, "value").value_or("");
  if (std::ranges::find(value_type_names, type) == value_type_names.end()) {
    report(Severity::Error,
           fmt::format("type '{}' of a key value would end the daemon: int, bool, double or string",
                       type));
  } else if (type == "double"
             && std::ranges::find(placeholder_names, value) != placeholder_names.end()) {
    report(Severity::Error, "a placeholder of type 'double' would end the daemon");
  }
}

// What the backend keeps of an element.
void Checker::sketch_backend(const DescribedElement& element) {
  PortSketch& current = port();
  if (element.attributes.empty() || current.backend == nullptr) {
    return;
  }
  const auto* const words = find_element(current.backend->elements, element.name);
  if (words != nullptr && words != current.backend->elements.data()
      && (words - 1)->occurs == Occurs::BeforeNext
      && !current.backend_elements.contains((words - 1)->name)) {
    warn("'{}' before any '{}' is ignored", element.name, (words - 1)->name);
  }
  current.backend_elements.insert(element.name);
  if (words != nullptr && words->attributes.data() == range_attributes.data()) {
    check_range(element);
  } else if (words != nullptr && words->attributes.data() == pin_attributes.data()
             && !value_of(element, "pin") && !value_of(element, "alias")) {
    warn("'{}' has neither 'alias' nor 'pin' and would be pin 0", element.name);
  }
  if (!g_str_equal(element.name, "device")) {
    return;
  }
  current.pinless = current.pinless || value_of(element, "mode") == "adc";
  if (const auto interval = value_of(element, "timeout")) {
    current.interval = g_ascii_strtoll(interval->c_str(), nullptr, 0);
  }
}

void Checker::sketch(const DescribedElement& element) {
  PortSketch& current = port();
  const std::string_view name = element.name;
  if (name == "port_no") {
    if (const auto number = value_of(element, "nbr")) {
      current.number = g_ascii_strtoll(number->c_str(), nullptr, 10);
    }
  } else if (name == "port_type") {
    const auto type = value_of(element, "type").value_or("");
    if (std::ranges::find(port_type_names, type) != port_type_names.end()) {
      current.type = type;
    }
  } else if (name == "properties") {
    current.addressable = current.addressable || is_true(value_of(element, "ioport"))
                          || is_true(value_of(element, "virtual"));
  } else if (name == "event") {
    current.event = value_of(element, "declaration").value_or("");
  } else if (name == "keyvalue") {
    check_key_value(element);
  }
  if (in_backend_) {
    sketch_backend(element);
  }
}

void Checker::start(const DescribedElement& element) {
  place_.line = element.line;
  if (g_str_equal(element.name, "port")) {
    start_port(element);
  } else if (ports_.empty()) {
    if (find_element(common_elements, element.name) != nullptr) {
      warn("'{}' before the first port is ignored", element.name);
    }
    return;
  } else if (g_str_equal(element.name, "backend")) {
    start_backend(element);
    return;
  }
  check_words(element);
  sketch(element);
}

void Checker::read(const std::string& file) {
  place_ = {.file = file, .line = 0};
  std::string text;
  g_autoptr(GError) error = nullptr;
  if (!regular_file_get_contents(file.c_str(), Links::Followed, &text, &error)) {
    report(Severity::Error, error->message);
    return;
  }
  const DescriptionHandler handler{
      .start = [this](const DescribedElement& element) { start(element); },
      .end =
          [this](const char* name) { in_backend_ = in_backend_ && !g_str_equal(name, "backend"); }};
  switch (description_read(text, handler, &error)) {
  case Reading::Whole:
    break;
  case Reading::CutShort:
    warn("the file is cut short: {}", error->message);
    break;
  case Reading::Broken:
    report(Severity::Error, error->message);
    break;
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
    report_at(port->place, sorted_out ? Severity::Note : Severity::Warning,
              fmt::format("number {} is also that of {}:{}, which counts", *port->number,
                          found->second->place.file, found->second->place.line));
  }
}

void Checker::finish() {
  for (const auto& port : ports_) {
    for (const auto& finding : check_port(port)) {
      report_at(port.place, finding.severity, finding.text);
    }
  }
  check_numbers();
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
