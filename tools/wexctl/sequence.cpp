#include "wexctl/sequence.h"

#include "wexctl/bus.h"
#include "wexctl/duration.h"

#include <fmt/format.h>

namespace wexctl {

namespace {

constexpr guint64 most_steps = 100000;

[[noreturn]] void malformed(const std::string& part) {
  throw CommandError(
      Status::Usage,
      fmt::format("'{}' is no sequence: write STATE:TIME[,STATE:TIME...][xTIMES], e.g. "
                  "1:500ms,0:2sx10",
                  part));
}

guint64 parse_number(const std::string& text, guint64 most) {
  guint64 number = 0;
  if (!g_ascii_string_to_unsigned(text.c_str(), 10, 0, most, &number, nullptr)) {
    malformed(text);
  }
  return number;
}

bool parse_state(const std::string& text) {
  if (text == "1" || text == "on") {
    return true;
  }
  if (text != "0" && text != "off") {
    malformed(text);
  }
  return false;
}

// The daemon counts microseconds in 32 bits, and does not hold a longer step: such a one is told as
// several of the same state.
constexpr guint longest_step_ms = G_MAXINT32 / 1000;

void add_step(std::vector<SequenceStep>& steps, bool state, guint duration_ms) {
  for (; duration_ms > longest_step_ms; duration_ms -= longest_step_ms) {
    steps.push_back({.state = state, .duration_ms = static_cast<int>(longest_step_ms)});
  }
  steps.push_back({.state = state, .duration_ms = static_cast<int>(duration_ms)});
}

void parse_step(std::vector<SequenceStep>& steps, const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) {
    malformed(text);
  }
  const bool state = parse_state(text.substr(0, colon));
  const auto duration_ms = parse_duration(text.substr(colon + 1));
  if (!duration_ms) {
    malformed(text);
  }
  add_step(steps, state, *duration_ms);
}

} // namespace

std::vector<SequenceStep> parse_sequence(const std::string& text) {
  std::string steps_text = text;
  guint64 times = 1;
  if (const auto x = text.rfind('x'); x != std::string::npos) {
    times = parse_number(text.substr(x + 1), most_steps);
    steps_text.erase(x);
  }

  std::vector<SequenceStep> once;
  size_t start = 0;
  while (true) {
    const auto comma = steps_text.find(',', start);
    parse_step(once, steps_text.substr(start, comma - start));
    if (comma == std::string::npos) {
      break;
    }
    start = comma + 1;
  }
  if (times == 0 || times * once.size() > most_steps) {
    throw CommandError(Status::Usage, fmt::format("a sequence has 1 to {} steps", most_steps));
  }

  std::vector<SequenceStep> steps;
  for (guint64 i = 0; i < times; i++) {
    steps.insert(steps.end(), once.begin(), once.end());
  }
  return steps;
}

} // namespace wexctl
