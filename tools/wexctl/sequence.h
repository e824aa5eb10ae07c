// Action sequences as people write them.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

struct SequenceStep {
  bool state;
  int duration_ms;
};

/// Parses "STATE:TIME[,STATE:TIME...][xTIMES]", e.g. "1:500ms,0:2sx10": ten times half a second on
/// and two seconds off. States are 1, 0, on and off; times are as parse_duration has them. Throws
/// CommandError.
std::vector<SequenceStep> parse_sequence(const std::string& text);

} // namespace wexctl
