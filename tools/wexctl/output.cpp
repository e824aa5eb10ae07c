#include "wexctl/output.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <numeric>
#include <optional>

namespace wexctl {

namespace {

bool text_stays_plain = false;

// Places on the screen, not bytes or characters.
size_t width_of(gunichar c) {
  return g_unichar_iszerowidth(c) != FALSE ? 0 : g_unichar_iswide(c) != FALSE ? 2 : 1;
}

constexpr size_t narrowest_column = 4;
constexpr size_t usual_terminal = 80;

// Places in a line; none where lines are not cut, because no person looks at them.
std::optional<size_t> line_room() {
  if (isatty(STDOUT_FILENO) == 0) {
    return std::nullopt;
  }
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return known ? size.ws_col : usual_terminal;
}

// Takes from the widest column until the line has room, or no column can be narrower.
void fit(std::vector<size_t>& widths, size_t room) {
  const size_t gaps = column_gap * (widths.size() - 1);
  auto total = std::accumulate(widths.begin(), widths.end(), gaps);
  for (; total > room; total--) {
    const auto widest = std::ranges::max_element(widths);
    if (*widest <= narrowest_column) {
      return;
    }
    --*widest;
  }
}

// C0, DEL and C1: a terminal acts on them instead of showing them.
bool is_control(gunichar c) {
  return c < 0x20 || (c >= 0x7f && c < 0xa0);
}

// JSON has escaped the others, but for the line ends of its own layout.
bool is_raw_in_json(gunichar c) {
  return c >= 0x7f && is_control(c);
}

std::string escaped(std::string_view text, std::string_view mark, bool (*wanted)(gunichar)) {
  std::string shown;
  while (!text.empty()) {
    const gunichar c = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool valid = g_unichar_validate(c) != FALSE;
    const auto length = valid ? static_cast<size_t>(g_utf8_skip[static_cast<guchar>(text[0])]) : 1;
    if (valid && !wanted(c)) {
      shown += text.substr(0, length);
    } else {
      shown += fmt::format("{}{:02x}", mark, valid ? c : static_cast<guchar>(text[0]));
    }
    text.remove_prefix(length);
  }
  return shown;
}

} // namespace

size_t places(const std::string& text) {
  size_t count = 0;
  for (const char* at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
    count += width_of(g_utf8_get_char(at));
  }
  return count;
}

std::string cut(const std::string& text, size_t room) {
  if (places(text) <= room) {
    return text;
  }
  size_t taken = 0;
  const char* at = text.c_str();
  while (taken + width_of(g_utf8_get_char(at)) < room) {
    taken += width_of(g_utf8_get_char(at));
    at = g_utf8_next_char(at);
  }
  return std::string(text.c_str(), at) + (room > 0 ? "…" : "");
}

std::string padded(const std::string& text, size_t room) {
  const auto shown = cut(text, room);
  return shown + std::string(room - places(shown), ' ');
}

std::vector<size_t> column_widths(const Rows& rows, std::optional<size_t> room) {
  std::vector<size_t> widths(rows.front().size());
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); i++) {
      widths[i] = std::max(widths[i], places(row[i]));
    }
  }
  if (room) {
    fit(widths, *room);
  }
  return widths;
}

CommandError unwritable(int error) {
  return CommandError(Status::Unwritable,
                      fmt::format("cannot write standard output: {}", g_strerror(error)));
}

// The lowest free number is the one taken. Whatever is closed is held by a file that cannot be
// written; who closed standard error wants no messages.
void hold_standard_streams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) == -1 && open("/dev/null", O_RDONLY) == -1) {
      _exit(static_cast<int>(Status::Unwritable));
    }
  }
}

void print_text(std::string_view text) {
  if (fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    throw unwritable(errno);
  }
}

void flush_output() {
  if (fflush(stdout) != 0) {
    throw unwritable(errno);
  }
}

bool colours_wanted() {
  const char* const no_color = getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (no_color == nullptr || *no_color == '\0')
         && g_strcmp0(getenv("TERM"), "dumb") != 0;
}

void keep_text_plain() {
  text_stays_plain = true;
}

std::string coloured(Colour colour, const std::string& text) {
  static const bool wanted = colours_wanted() && !text_stays_plain;
  static constexpr std::array codes{"0", "1", "32", "33", "31", "2"};
  if (!wanted || colour == Colour::Plain) {
    return text;
  }
  return fmt::format("\x1b[{}m{}\x1b[0m", codes[static_cast<size_t>(colour)], text);
}

std::string printable(std::string_view text) {
  return escaped(text, "\\x", is_control);
}

Table::Table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

void Table::add(const std::vector<std::string>& row) {
  auto& cells = rows_.emplace_back();
  std::ranges::transform(row, std::back_inserter(cells), printable);
}

void Table::print() const {
  const auto room = line_room();
  const auto widths = column_widths(rows_, room);
  bool heading = true;
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i < row.size(); i++) {
      line += padded(row[i], widths[i]) + std::string(column_gap, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    line = room ? cut(line, *room) : line;
    wexctl::print("{}\n", heading ? coloured(Colour::Bold, line) : line);
    heading = false;
  }
}

std::string json_text(const Json& json, int indent) {
  return escaped(json.dump(indent, ' ', false, Json::error_handler_t::replace), "\\u00",
                 is_raw_in_json);
}

void print_json(const Json& json) {
  print("{}\n", json_text(json, 2));
}

const char* on_or_off(bool state) {
  return state ? "on" : "off";
}

} // namespace wexctl
