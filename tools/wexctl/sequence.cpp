#include "wexctl/sequence.h"

#include "wexctl/bus.h"

#include <fmt/format.h>

namespace wexctl {

namespace {

constexpr guint64 most_steps = 100000;

[[noreturn]] void malformed(const std::string& part) {
  throw CommandError(Status::Usage,
                     fmt::format("'{}' is no sequence: write STATE:MS[,STATE:MS...][xTIMES], e.g. "
                                 "1:500,0:200x10",
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

SequenceStep parse_step(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) {
    malformed(text);
  }
  return {.state = parse_state(text.substr(0, colon)),
          .duration_ms = static_cast<int>(parse_number(text.substr(colon + 1), G_MAXINT32))};
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
    once.push_back(parse_step(steps_text.substr(start, comma - start)));
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
