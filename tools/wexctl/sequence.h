// Action sequences as people write them.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

struct SequenceStep {
  bool state;
  int duration_ms;
};

/// Parses "STATE:MS[,STATE:MS...][xTIMES]", e.g. "1:500,0:200x10": ten times half a second on and a
/// fifth off. States are 1, 0, on and off; durations are milliseconds. Throws CommandError.
std::vector<SequenceStep> parse_sequence(const std::string& text);

} // namespace wexctl
