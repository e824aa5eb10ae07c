// How a line of the monitor is shown: as text, as JSON, or as the user's own format has it.
#pragma once

#include "wexctl/output.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace wexctl {

/// Something that happened.
struct MonitorLine {
  /// Also what JSON calls the event.
  const char* kind;
  /// What JSON has beside kind and time.
  Json fields;
  /// "on", "off" or the state of a supervised line; empty where there is no state.
  std::string state;
  /// What people read, fit for a terminal.
  std::string text;
};

class LineFormat {
public:
  /// For people, with the time of day.
  static LineFormat text() { return LineFormat(Kind::People); }
  /// An object on each line, with date, time and zone.
  static LineFormat json() { return LineFormat(Kind::Machines); }
  /// "{time} {name} is {state}"; the format must be right.
  static LineFormat fields(const std::string& format);

  /// The line as of now, with its end.
  [[nodiscard]] std::string shown(const MonitorLine& line) const;

private:
  enum class Kind { People, Machines, Fields };
  explicit LineFormat(Kind kind) : kind_(kind) {}

  Kind kind_;
  /// Texts, each followed by the value of a field; the last field is none.
  std::vector<std::pair<std::string, std::string_view>> parts_;
};

/// What is wrong with a format; empty if it is right.
std::string format_mistake(const std::string& format);

} // namespace wexctl
