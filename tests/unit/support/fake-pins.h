// Pins at the boundary of libugpio: every call is written down, levels and faults are the test's.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

struct FakePins {
  /// "request_one 17 333", "full_open 17", ... in order. A pin by name stands with its name.
  std::vector<std::string> calls;
  /// Levels by pin, as ugpio_get_value gives them; below 0 is an errno to fail with.
  std::map<std::string, int> levels;
  /// What the next readings of a pin give before its level counts.
  std::map<std::string, std::deque<int>> readings;
  /// Calls that fail, by how they start: "set_value" for every pin, "set_value 17" for one.
  std::vector<std::string> faults;

  /// Forgets everything and releases the descriptors.
  void reset();
  /// Makes the pin's descriptor raise an error condition, as an edge does.
  void edge(const std::string& pin);
};

extern FakePins fake_pins;
