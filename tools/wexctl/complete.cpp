#include "wexctl/complete.h"

#include "wexctl/bus.h"
#include "wexctl/output.h"
#include "wexctl/ports.h"
#include "wexctl/wait.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace wexctl {

namespace {

/// A word, and what it means where that is not plain.
struct Candidate {
  std::string word;
  std::string meaning;
};
using Candidates = std::vector<Candidate>;

constexpr std::string_view files = ":files";

// A name that takes more than its line, or commands the terminal, cannot be typed either.
Candidates ports() {
  Candidates candidates;
  try {
    for (const auto& port : Daemon().ports()) {
      const bool usable = !port.name.empty() && printable(port.name) == port.name;
      candidates.push_back({.word = usable ? port.name : std::to_string(port.number),
                            .meaning = port.input ? "input" : "output"});
    }
  } catch (const CommandError&) {
    candidates.clear();
  }
  return candidates;
}

// Words with blanks between them.
Candidates words(std::string_view text) {
  Candidates candidates;
  while (!text.empty()) {
    const auto end = std::min(text.find(' '), text.size());
    candidates.push_back({.word = std::string(text.substr(0, end)), .meaning = ""});
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return candidates;
}

// PORT=STATE: the port first, then what it can be.
Candidates settings(const std::string& typed) {
  const auto sign = typed.rfind('=');
  if (sign != std::string::npos) {
    const auto port = typed.substr(0, sign + 1);
    return {{.word = port + "on", .meaning = ""}, {.word = port + "off", .meaning = ""}};
  }
  auto candidates = ports();
  for (auto& candidate : candidates) {
    candidate.word += '=';
  }
  return candidates;
}

struct Values {
  /// As the help calls it.
  const char* argument;
  /// The verb that it is of; empty for any.
  std::string_view verb;
  Candidates (*candidates)();
};

/// The first that fits counts.
constexpr std::array values{
    Values{"PORT", "", ports},
    Values{"NAME", "drop", ports},
    Values{"STATE", "wait", [] { return words("on off open closed short cut"); }},
    Values{"STATE", "ranges", [] { return words("open closed short cut"); }},
    Values{"STATE", "", [] { return words("on off"); }},
    Values{"DIRECTION", "", [] { return words("input output"); }},
    Values{"SENSE", "", [] { return words("open closed"); }},
    Values{"KIND", "", [] { return words("video audio all"); }},
    Values{"--side", "", [] { return words("input output"); }},
    Values{"--columns", "",
           [] { return words("no name shown kind state active usage properties"); }},
    Values{"--timeout", "", [] { return words("500ms 5s 1m"); }},
    Values{"--idle-timeout", "", [] { return words("500ms 5s 1m"); }},
    Values{"--count", "", [] { return words("1 10"); }},
    Values{"--format", "",
           [] {
             return Candidates{{"{time} {name} is {state}", "an example"}};
           }},
    Values{"TIME", "", [] { return words("500ms 2s 1m"); }},
    Values{"SEQUENCE", "",
           [] {
             return Candidates{{"1:500ms,0:500msx10", "ten times half a second on and off"},
                               {"1:2s,0:0", "on for two seconds"}};
           }},
    Values{"LOWER", "",
           [] {
             return Candidates{{"0", "an example"}, {"3200", "an example"}};
           }},
    Values{"UPPER", "",
           [] {
             return Candidates{{"800", "an example"}, {"4095", "an example"}};
           }},
    Values{"PROPERTY", "",
           [] {
             return words("IOPort.Direction IOPort.Usage Input.Name Input.Trig Output.Name "
                          "Output.Active Output.Button Output.PulseTime Output.Mode "
                          "Output.DelayTime");
           }},
    Values{"--keys", "",
           [] {
             return Candidates{{std::string(files), ""}};
           }},
    Values{"--notes", "",
           [] {
             return Candidates{{std::string(files), ""}};
           }},
    Values{"FILE", "",
           [] {
             return Candidates{{std::string(files), ""}};
           }},
};

Candidates values_of(const CLI::Option* option, const CLI::App* verb) {
  const std::string name =
      option->get_positional() ? option->get_single_name() : "--" + option->get_lnames().front();
  const auto* const found = std::ranges::find_if(values, [&](const Values& entry) {
    return entry.argument == name && (entry.verb.empty() || entry.verb == verb->get_name());
  });
  return found != values.end() ? found->candidates() : Candidates();
}

const CLI::App* inner_verb(const CLI::App* verb, const std::string& name) {
  const auto inner = verb->get_subcommands(
      [&](const CLI::App* one) { return one->get_name() == name && !one->get_group().empty(); });
  return inner.empty() ? nullptr : inner.front();
}

/// What the words so far have said, and so what comes next.
class Place {
public:
  explicit Place(const CLI::App& app) : verb_(&app) {}

  void pass(const std::string& word);
  [[nodiscard]] Candidates next(const std::string& typed) const;

private:
  [[nodiscard]] Candidates verbs() const;
  [[nodiscard]] Candidates options() const;
  [[nodiscard]] const CLI::Option* argument() const;
  [[nodiscard]] bool takes_settings(const std::string& typed) const;

  const CLI::App* verb_;
  /// Whose value comes next.
  const CLI::Option* option_ = nullptr;
  size_t arguments_ = 0;
  /// Whether one of them was PORT=STATE.
  bool settings_ = false;
};

// Options may stand anywhere, and do not count.
void Place::pass(const std::string& word) {
  if (option_ != nullptr) {
    option_ = nullptr;
  } else if (word.starts_with('-')) {
    const auto* const option = verb_->get_option_no_throw(word);
    option_ = option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
  } else if (const auto* const inner = inner_verb(verb_, word)) {
    verb_ = inner;
  } else {
    arguments_++;
    settings_ = settings_ || word.find('=') != std::string::npos;
  }
}

// Where one argument has both, all have.
bool Place::takes_settings(const std::string& typed) const {
  return verb_->get_name() == "set" && (settings_ || typed.find('=') != std::string::npos);
}

Candidates Place::verbs() const {
  Candidates candidates;
  for (const auto* verb : verb_->get_subcommands({})) {
    if (!verb->get_group().empty()) {
      candidates.push_back({.word = verb->get_name(), .meaning = verb->get_description()});
    }
  }
  return candidates;
}

Candidates Place::options() const {
  Candidates candidates;
  for (const auto* option : verb_->get_options()) {
    // All verbs have the help of all, of which none tells.
    const bool told = option != verb_->get_help_all_ptr() || verb_->get_parent() == nullptr;
    if (told && !option->get_lnames().empty()) {
      candidates.push_back(
          {.word = "--" + option->get_lnames().front(), .meaning = option->get_description()});
    }
  }
  return candidates;
}

// The last takes all that is left, if it takes more than one.
const CLI::Option* Place::argument() const {
  const auto all =
      verb_->get_options([](const CLI::Option* option) { return option->get_positional(); });
  if (arguments_ < all.size()) {
    return all[arguments_];
  }
  const bool repeats = !all.empty() && all.back()->get_items_expected_max() > 1;
  return repeats ? all.back() : nullptr;
}

Candidates Place::next(const std::string& typed) const {
  if (option_ != nullptr) {
    return values_of(option_, verb_);
  }
  if (typed.starts_with('-')) {
    return options();
  }
  if (takes_settings(typed)) {
    return settings(typed);
  }
  if (auto inner = verbs(); !inner.empty()) {
    return arguments_ == 0 ? inner : Candidates();
  }
  const auto* const next = argument();
  return next != nullptr ? values_of(next, verb_) : Candidates();
}

} // namespace

void print_completions(const CLI::App& app, const std::vector<std::string>& words) {
  const std::string typed = words.empty() ? "" : words.back();
  Place place(app);
  for (size_t i = 0; i + 1 < words.size(); i++) {
    place.pass(words[i]);
  }
  for (const auto& candidate : place.next(typed)) {
    if (candidate.word == files || candidate.word.starts_with(typed)) {
      print("{}{}{}\n", candidate.word, candidate.meaning.empty() ? "" : "\t", candidate.meaning);
    }
  }
}

} // namespace wexctl
