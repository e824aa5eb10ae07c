#include "wexctl/live/view.h"

#include "wexctl/output.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>

namespace wexctl {

namespace {

constexpr Size smallest{.columns = 36, .rows = 8};

std::string repeated(std::string_view sign, size_t count) {
  std::string text;
  for (; count > 0; count--) {
    text += sign;
  }
  return text;
}

size_t places(const Line& line) {
  size_t count = 0;
  for (const auto& span : line) {
    count += wexctl::places(span.text);
  }
  return count;
}

// The line in exactly so many places.
Line fitted(const Line& line, size_t room, Style rest = Style::Plain) {
  Line fitted;
  for (const auto& span : line) {
    // Of blanks nothing is left out.
    const bool blank = span.text.find_first_not_of(' ') == std::string::npos;
    auto text = blank ? span.text.substr(0, room) : cut(span.text, room);
    room -= wexctl::places(text);
    fitted.push_back({.style = span.style, .text = std::move(text), .chosen = span.chosen});
  }
  const bool chosen = !line.empty() && line.back().chosen;
  fitted.push_back({.style = rest, .text = std::string(room, ' '), .chosen = chosen});
  return fitted;
}

Line rule(const std::string& heading, size_t columns) {
  Line line{{Style::Dim, "── "}, {Style::Heading, heading}, {Style::Dim, " "}};
  const size_t used = places(line);
  line.push_back({Style::Dim, repeated("─", columns > used ? columns - used : 0)});
  return fitted(line, columns);
}

std::string joined_names(const Json& missing) {
  std::string names;
  for (const auto& port : missing) {
    names += (names.empty() ? "" : ", ") + printable(port["name"].get<std::string>());
  }
  return names;
}

// As the daemon tells systemd.
std::string in_service(const Json& status) {
  if (status.empty()) {
    return "";
  }
  const auto missing = joined_names(status["missing"]);
  return fmt::format("{} of {} ports in service{}{}", status["ports_in_service"].dump(),
                     status["ports"].dump(), missing.empty() ? "" : "; missing: ", missing);
}

Line title(const Scene& scene, size_t columns) {
  const std::string keys = "  ? help  q quit ";
  const size_t room = columns > keys.size() ? columns - keys.size() : columns;
  Line left{{Style::Title, " wexd  "}};
  if (scene.trouble.empty()) {
    left.push_back({Style::Title, in_service(scene.look.status)});
  } else {
    left.push_back({Style::TitleTrouble, " " + scene.trouble + " "});
  }
  auto line = fitted(left, room, Style::Title);
  line.push_back({Style::Title, cut(keys, columns - room)});
  return line;
}

// -- ports ---------------------------------------------------------------------------------------

struct ShownColumn {
  std::string_view name;
  /// Terminals that are narrower do without.
  size_t from;
};

constexpr std::array shown_columns{ShownColumn{"no", 0},        ShownColumn{"name", 0},
                                   ShownColumn{"shown", 64},    ShownColumn{"kind", 48},
                                   ShownColumn{"state", 0},     ShownColumn{"active", 72},
                                   ShownColumn{"sequence", 56}, ShownColumn{"usage", 80}};

std::vector<std::string_view> columns_for(size_t columns) {
  std::vector<std::string_view> chosen;
  for (const auto& column : shown_columns) {
    if (columns >= column.from) {
      chosen.push_back(column.name);
    }
  }
  return chosen;
}

std::string cell(std::string_view name, const SeenPort& port) {
  if (name == "sequence") {
    return port.runs ? "runs" : "";
  }
  if (name == "kind" && !port.missing) {
    return std::string(port.info.input ? "input" : "output") + (port.info.configurable ? " ⇄" : "");
  }
  const auto value = port_column(name).value(port.info, port.more);
  if (port.missing) {
    return name == "state"                                     ? "missing"
           : name == "no" || name == "name" || name == "usage" ? value
                                                               : "";
  }
  return name == "state" ? (port.info.state ? "● " : "○ ") + value : value;
}

Rows cells(const std::vector<SeenPort>& ports, const std::vector<std::string_view>& names) {
  Rows rows(1);
  for (const auto& name : names) {
    rows[0].emplace_back(name == "sequence" ? "Runs" : port_column(name).heading);
  }
  for (const auto& port : ports) {
    auto& row = rows.emplace_back();
    for (const auto& name : names) {
      row.push_back(printable(cell(name, port)));
    }
  }
  return rows;
}

Style word_style(const std::string& word) {
  struct Entry {
    std::string_view word;
    Style style;
  };
  static constexpr std::array styles{Entry{"short", Style::Short}, Entry{"cut", Style::Cut},
                                     Entry{"closed", Style::Closed}, Entry{"open", Style::Open},
                                     Entry{"undefined", Style::Trouble}};
  const auto* const found = std::ranges::find(styles, word, &Entry::word);
  return found != styles.end() ? found->style : Style::Plain;
}

Style state_style(const SeenPort& port) {
  if (port.more.supervised) {
    return word_style(*port.more.supervised);
  }
  return port.info.state ? Style::On : Style::Plain;
}

struct Table {
  std::vector<std::string_view> names;
  Rows rows;
  std::vector<size_t> widths;
  size_t columns;
};

Table table(const Scene& scene, size_t columns) {
  auto names = columns_for(columns);
  auto rows = cells(scene.look.ports, names);
  // The mark of the chosen port goes before the first column.
  const size_t mark = 2;
  auto widths = column_widths(rows, columns - mark);
  return {.names = std::move(names),
          .rows = std::move(rows),
          .widths = std::move(widths),
          .columns = columns};
}

Line table_line(const Table& table, size_t row, const SeenPort* port, bool chosen) {
  Line line{{Style::Plain, chosen ? "▶ " : "  ", chosen}};
  for (size_t i = 0; i < table.names.size(); i++) {
    const Style style = port == nullptr             ? Style::Heading
                        : port->missing             ? Style::Dim
                        : table.names[i] == "state" ? state_style(*port)
                                                    : Style::Plain;
    line.push_back({style, padded(table.rows[row][i], table.widths[i]), chosen});
    line.push_back({Style::Plain, std::string(column_gap, ' '), chosen});
  }
  return fitted(line, table.columns);
}

Line with_corner(const Line& line, const std::string& text, size_t columns) {
  auto shown = fitted(line, columns - wexctl::places(text));
  shown.push_back({Style::Dim, text});
  return shown;
}

// The part of the list that holds the chosen port; scrolls no further than it must.
std::vector<Line> port_lines(Scene& scene, size_t columns, size_t count) {
  const auto& ports = scene.look.ports;
  const auto shown = table(scene, columns);
  std::vector<Line> lines{table_line(shown, 0, nullptr, false)};
  const size_t least = scene.chosen + 1 > count ? scene.chosen + 1 - count : 0;
  scene.top = std::min({scene.top, scene.chosen, ports.size() - count});
  scene.top = std::max(scene.top, least);
  for (size_t i = scene.top; i < scene.top + count; i++) {
    lines.push_back(table_line(shown, i + 1, &ports[i], i == scene.chosen));
  }
  const size_t below = ports.size() - scene.top - count;
  if (scene.top > 0 && count > 0) {
    lines[1] = with_corner(lines[1], fmt::format(" ↑ {}", scene.top), columns);
  }
  if (below > 0 && count > 0) {
    lines.back() = with_corner(lines.back(), fmt::format(" ↓ {}", below), columns);
  }
  return lines;
}

// -- supervised lines ----------------------------------------------------------------------------

// A range as exactly that many characters.
std::string segment(const std::string& name, size_t width) {
  if (width < name.size() + 2) {
    const auto start = name.substr(0, width);
    return start + repeated("─", width - start.size());
  }
  return "├" + name + repeated("─", width - 2 - name.size()) + "┤";
}

size_t column_of(guint level, guint top, size_t width) {
  return static_cast<size_t>(guint64{level} * (width - 1) / std::max(top, 1U));
}

// Each range from its lower to its upper limit, the later one over the earlier, as it counts for
// the daemon; the mark is at the level.
Line bar(const Json& ranges, guint level, size_t width) {
  if (ranges.empty() || width < 2) {
    return {};
  }
  guint top = 0;
  for (const auto& range : ranges) {
    top = std::max(top, range["upper"].get<guint>());
  }
  std::vector<Span> signs(width, {Style::Dim, " "});
  for (const auto& range : ranges) {
    const auto name = range["state"].get<std::string>();
    const size_t first = column_of(range["lower"].get<guint>(), top, width);
    const size_t last = column_of(range["upper"].get<guint>(), top, width);
    const auto drawn = segment(name, last - first + 1);
    const char* at = drawn.c_str();
    for (size_t i = first; i <= last; i++) {
      signs[i] = {word_style(name),
                  std::string(at, static_cast<const char*>(g_utf8_next_char(at)))};
      at = g_utf8_next_char(at);
    }
  }
  signs[column_of(std::min(level, top), top, width)] = {Style::Mark, "◆"};
  return signs;
}

Line supervised_line(const Json& line, size_t columns) {
  Line shown{{Style::Plain, fmt::format("  {:>2}  {} ", line["number"].get<int>(),
                                        padded(printable(line["name"].get<std::string>()), 14))}};
  if (line["supervised"] != true) {
    shown.push_back({Style::Dim, "not supervised"});
  } else if (!line.contains("state")) {
    shown.push_back({Style::Trouble, printable(line["error"].get<std::string>())});
  } else {
    const auto word = line["state"].get<std::string>();
    shown.push_back({word_style(word), padded(word, 10)});
    if (line["ranges"].empty()) {
      shown.push_back({Style::Dim, "told, not measured"});
    } else {
      const auto level = line["level"].get<guint>();
      shown.push_back({Style::Plain, fmt::format("{:>5} ", level)});
      const size_t used = places(shown) + 1;
      const auto drawn = bar(line["ranges"], level, columns > used ? columns - used : 0);
      shown.insert(shown.end(), drawn.begin(), drawn.end());
    }
  }
  return fitted(shown, columns);
}

std::vector<Line> supervised_lines(const Scene& scene, Size size) {
  // Where there is little room, the ports need it.
  const size_t count = size.rows < 16 ? 0 : std::min(scene.look.lines.size(), size.rows / 4);
  std::vector<Line> lines;
  for (size_t i = 0; i < count; i++) {
    lines.push_back(supervised_line(scene.look.lines[i], size.columns));
  }
  if (!lines.empty()) {
    lines.insert(lines.begin(), rule("Supervised lines", size.columns));
  }
  return lines;
}

// -- changes and services ------------------------------------------------------------------------

Style happening_style(const Happening& happening) {
  if (!happening.state.empty()) {
    return happening.state == "on"    ? Style::On
           : happening.state == "off" ? Style::Plain
                                      : word_style(happening.state);
  }
  const bool bad = happening.kind == "trouble" || happening.kind == "daemon-gone"
                   || happening.kind == "daemon-absent";
  return bad ? Style::Trouble : happening.kind == "aside" ? Style::Dim : Style::Note;
}

Line happening_line(const Happening& happening, size_t columns) {
  return fitted({{Style::Dim, fmt::format(" {} ", happening.at)},
                 {happening_style(happening), happening.text}},
                columns);
}

std::string short_name(const Json& service) {
  constexpr std::string_view common = "com.norv.";
  auto name = printable(service["name"].get<std::string>());
  return name.starts_with(common) ? name.substr(common.size()) : name;
}

Line service_line(const Json& service, size_t columns) {
  const bool hangs = service["left_alone"] == true;
  const bool there = service["there"] == true;
  return fitted({hangs   ? Span{Style::Trouble, " ! "}
                 : there ? Span{Style::On, " ● "}
                         : Span{Style::Dim, " ○ "},
                 {there ? Style::Plain : Style::Dim, short_name(service)},
                 {Style::Dim, hangs   ? " hangs"
                              : there ? ""
                                      : " not there"}},
                columns);
}

// Changes on the left, the latest at the foot; services on the right if there is room for both.
std::vector<Line> changes_and_services(const Scene& scene, Size size) {
  const size_t right = size.columns >= 72 ? std::min<size_t>(size.columns / 3, 42) : 0;
  const size_t left = size.columns - right;
  const auto services = scene.look.status.value("services", Json::array());
  const size_t shown = std::min(scene.happenings.size(), size.rows - 1);
  std::vector<Line> lines;
  for (size_t i = 0; i < size.rows; i++) {
    const size_t first = scene.happenings.size() - shown;
    auto line = i == 0       ? rule("Changes", left)
                : i <= shown ? happening_line(scene.happenings[first + i - 1], left)
                             : fitted({}, left);
    const auto other = i == 0                 ? rule("Services", right)
                       : i <= services.size() ? service_line(services[i - 1], right)
                                              : fitted({}, right);
    line.insert(line.end(), other.begin(), other.end());
    lines.push_back(right > 0 ? line : fitted(line, left));
  }
  return lines;
}

// -- the rest ------------------------------------------------------------------------------------

Line hint_line(const std::vector<Hint>& hints, size_t columns) {
  Line line{{Style::Plain, " "}};
  for (const auto& hint : hints) {
    line.push_back({Style::Key, hint.key});
    line.push_back({Style::Dim, (hint.key.empty() ? "" : " ") + hint.text + "  "});
  }
  return fitted(line, columns);
}

std::vector<Line> help_lines(const Scene& scene, Size size) {
  std::vector<Line> lines{rule("Keys", size.columns)};
  for (const auto& hint : scene.help) {
    lines.push_back(fitted({{Style::Key, "  " + padded(hint.key, 10)}, {Style::Plain, hint.text}},
                           size.columns));
  }
  lines.resize(size.rows, fitted({}, size.columns));
  return lines;
}

std::vector<Line> too_small(Size size) {
  std::vector<Line> lines(size.rows, fitted({}, size.columns));
  lines[0] = fitted({{Style::Trouble, "too small; q quits"}}, size.columns);
  return lines;
}

void append(std::vector<Line>& lines, const std::vector<Line>& more) {
  lines.insert(lines.end(), more.begin(), more.end());
}

} // namespace

std::vector<Line> draw(Scene& scene, Size size) {
  if (size.columns < smallest.columns || size.rows < smallest.rows) {
    return too_small(size);
  }
  std::vector<Line> lines{title(scene, size.columns)};
  if (!scene.help.empty()) {
    append(lines, help_lines(scene, {size.columns, size.rows - 1}));
    return lines;
  }
  // Title, headings, the rule of the changes with some of them, and the hints.
  const size_t others = 4 + std::max<size_t>(size.rows / 4, 2);
  const auto supervised = supervised_lines(scene, size);
  const size_t room = size.rows - others - supervised.size();
  append(lines, port_lines(scene, size.columns, std::min(room, scene.look.ports.size())));
  append(lines, supervised);
  append(lines, changes_and_services(scene, {size.columns, size.rows - lines.size() - 1}));
  lines.push_back(hint_line(scene.hints, size.columns));
  return lines;
}

} // namespace wexctl
