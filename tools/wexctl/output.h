// What the user sees: tables, colours on a terminal, JSON for machines.
#pragma once

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace wexctl {

/// Keys keep the order in which they were set.
using Json = nlohmann::ordered_json;

enum class Colour { Plain, Bold, Green, Yellow, Red, Dim };

/// `text` in a colour if standard output is a terminal and NO_COLOR is unset, else as it is.
std::string coloured(Colour colour, const std::string& text);

/// A table of left-aligned columns.
class Table {
public:
  explicit Table(std::vector<std::string> headings);
  void add(std::vector<std::string> row);
  /// Prints the headings and all rows to standard output.
  void print() const;

private:
  std::vector<std::vector<std::string>> rows_;
};

void print_json(const Json& json);

const char* on_or_off(bool state);

} // namespace wexctl
