// What the user sees: tables, colours on a terminal, JSON for machines. Nothing that could not be
// written passes as done.
#pragma once

#include "wexctl/bus.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wexctl {

/// Sees to it that the three standard streams are taken, so that no file opened later is mistaken
/// for one. What is written to an output that was closed fails.
void hold_standard_streams();

/// Writes to standard output; throws if it takes less. Everything goes this way.
void print_text(std::string_view text);
template <typename... Args>
void print(fmt::format_string<Args...> format, Args&&... args) {
  print_text(fmt::format(format, std::forward<Args>(args)...));
}
/// What to throw when standard output fails with this number of errno.
CommandError unwritable(int error);
/// Throws unless all that was printed is written now.
void flush_output();

/// Keys keep the order in which they were set.
using Json = nlohmann::ordered_json;

enum class Colour { Plain, Bold, Green, Yellow, Red, Dim };

/// `text` in a colour if standard output is a terminal that has some and NO_COLOR is unset, else as
/// it is.
std::string coloured(Colour colour, const std::string& text);
/// Whether standard output is such a terminal.
bool colours_wanted();
/// From now on nothing is coloured by coloured(): for who draws by other means.
void keep_text_plain();

/// Text from elsewhere as it can be shown: control characters, and bytes that are no UTF-8, as
/// \xNN. Nobody forges a line or commands the terminal; a backslash stays as it is.
std::string printable(std::string_view text);

/// Places that printable text takes on the screen.
size_t places(const std::string& text);
/// As much of printable text as has room, with a mark where something is left out.
std::string cut(const std::string& text, size_t room);
/// The text in exactly so many places.
std::string padded(const std::string& text, size_t room);

/// Printable cells, row by row, as many in each.
using Rows = std::vector<std::vector<std::string>>;
/// Places between two columns.
inline constexpr size_t column_gap = 2;
/// How wide the columns of the rows are: as the widest cell, or if there is less room, narrower,
/// the widest first.
std::vector<size_t> column_widths(const Rows& rows, std::optional<size_t> room);

/// A table of left-aligned columns. On a terminal it is as wide as that at most: columns become
/// narrower, the widest first, and what is left out of a cell is marked.
class Table {
public:
  explicit Table(std::vector<std::string> headings);
  /// The cells are made printable.
  void add(const std::vector<std::string>& row);
  /// Prints the headings and all rows to standard output.
  void print() const;

private:
  Rows rows_;
};

/// On one line unless there is an indent.
std::string json_text(const Json& json, int indent = -1);
void print_json(const Json& json);

const char* on_or_off(bool state);

} // namespace wexctl
