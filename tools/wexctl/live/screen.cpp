#include "wexctl/live/screen.h"

#include "wexctl/bus.h"
#include "wexctl/output.h"

#include <fmt/format.h>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstring>

// Last, for its macros have everybody's names.
#define NCURSES_NOMACROS
#include <curses.h>
#include <term.h>
#undef columns
#undef lines

namespace wexctl {

namespace {

struct Named {
  std::string_view name;
  wint_t code;
  /// What the library calls a function key, rather than a character.
  bool function;
};

constexpr std::array names{
    Named{"space", L' ', false},      Named{"enter", L'\n', false},
    Named{"enter", L'\r', false},     Named{"enter", KEY_ENTER, true},
    Named{"up", KEY_UP, true},        Named{"down", KEY_DOWN, true},
    Named{"home", KEY_HOME, true},    Named{"end", KEY_END, true},
    Named{"pageup", KEY_PPAGE, true}, Named{"pagedown", KEY_NPAGE, true},
    Named{"f1", KEY_F0 + 1, true},    Named{"f2", KEY_F0 + 2, true},
    Named{"f3", KEY_F0 + 3, true},    Named{"f4", KEY_F0 + 4, true},
    Named{"f5", KEY_F0 + 5, true},    Named{"f6", KEY_F0 + 6, true},
    Named{"f7", KEY_F0 + 7, true},    Named{"f8", KEY_F0 + 8, true},
    Named{"f9", KEY_F0 + 9, true},    Named{"f10", KEY_F0 + 10, true},
    Named{"f11", KEY_F0 + 11, true},  Named{"f12", KEY_F0 + 12, true},
    Named{"control-c", 3, false},     Named{"control-d", 4, false},
};

// The sixteen colours of the terminal's own choice suit its background.
struct Look {
  Style style;
  attr_t attributes;
  short colour;
};

constexpr short own_colour = -1;
constexpr std::array looks{
    Look{Style::Plain, A_NORMAL, own_colour},
    Look{Style::Title, A_REVERSE | A_BOLD, own_colour},
    Look{Style::TitleTrouble, A_REVERSE | A_BOLD, COLOR_RED},
    Look{Style::Heading, A_BOLD, own_colour},
    Look{Style::Dim, A_DIM, own_colour},
    Look{Style::Key, A_BOLD, COLOR_CYAN},
    Look{Style::On, A_BOLD, COLOR_GREEN},
    Look{Style::Note, A_NORMAL, COLOR_CYAN},
    Look{Style::Trouble, A_BOLD, COLOR_RED},
    Look{Style::Short, A_NORMAL, COLOR_RED},
    Look{Style::Cut, A_NORMAL, COLOR_MAGENTA},
    Look{Style::Closed, A_NORMAL, COLOR_GREEN},
    Look{Style::Open, A_NORMAL, COLOR_YELLOW},
    Look{Style::Mark, A_REVERSE | A_BOLD, own_colour},
};

// Texts are UTF-8 whatever the user's language; the library must know that.
void speak_utf8() {
  if (setlocale(LC_CTYPE, "") == nullptr || strcmp(nl_langinfo(CODESET), "UTF-8") != 0) {
    setlocale(LC_CTYPE, "C.UTF-8");
  }
}

void prepare_colours() {
  if (!colours_wanted() || !has_colors()) {
    return;
  }
  start_color();
  use_default_colors();
  for (size_t i = 0; i < looks.size(); i++) {
    init_pair(static_cast<short>(i + 1), looks[i].colour, own_colour);
  }
}

void put(const Span& span) {
  const auto* const look = std::ranges::find(looks, span.style, &Look::style);
  const auto pair = static_cast<short>(look - looks.begin() + 1);
  const bool has_colour = look->colour != own_colour && colours_wanted() && has_colors();
  attr_set(look->attributes | (span.chosen ? A_REVERSE : A_NORMAL), has_colour ? pair : 0, nullptr);
  addstr(span.text.c_str());
}

std::string character(wint_t code) {
  std::array<char, 6> bytes{};
  const int length = g_unichar_to_utf8(code, bytes.data());
  return {bytes.data(), static_cast<size_t>(length)};
}

} // namespace

void require_terminal() {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
    throw CommandError(Status::Usage, "live needs a terminal");
  }
  int found = 0;
  const bool known = setupterm(nullptr, STDOUT_FILENO, &found) == OK;
  const bool able = known && tigetstr("cup") != nullptr;
  if (known) {
    del_curterm(cur_term);
  }
  if (!able) {
    const char* const term = getenv("TERM");
    throw CommandError(Status::Usage,
                       fmt::format("live needs a terminal whose cursor it can move; TERM is '{}'",
                                   term != nullptr ? term : ""));
  }
}

bool is_key(std::string_view name) {
  return std::ranges::find(names, name, &Named::name) != names.end()
         || (name != " " && g_utf8_strlen(std::string(name).c_str(), -1) == 1);
}

Screen::Screen() {
  speak_utf8();
  screen_ = newterm(nullptr, stdout, stdin);
  if (screen_ == nullptr) {
    throw CommandError(Status::Usage, "live needs a terminal");
  }
  // An interrupt is a key like any other, so that it ends nothing else that was started here.
  raw();
  noecho();
  nonl();
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  leaveok(stdscr, TRUE);
  curs_set(0);
  // An escape alone means nothing here, so nobody waits for what might follow it.
  set_escdelay(50);
  prepare_colours();
}

Screen::~Screen() {
  endwin();
  delscreen(screen_);
}

Size Screen::size() const {
  return {.columns = static_cast<size_t>(std::max(getmaxx(stdscr), 1)),
          .rows = static_cast<size_t>(std::max(getmaxy(stdscr), 1))};
}

void Screen::follow_size() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
    resizeterm(size.ws_row, size.ws_col);
  }
}

void Screen::show(const std::vector<Line>& lines) {
  erase();
  int row = 0;
  for (const auto& line : lines) {
    move(row++, 0);
    std::ranges::for_each(line, put);
  }
  refresh();
}

std::optional<std::string> Screen::key() {
  wint_t code = 0;
  const int kind = get_wch(&code);
  if (kind == ERR) {
    return std::nullopt;
  }
  const auto* const named = std::ranges::find_if(names, [&](const Named& entry) {
    return entry.code == code && entry.function == (kind == KEY_CODE_YES);
  });
  if (named != names.end()) {
    return std::string(named->name);
  }
  // Such as the library's own word that the size has changed.
  return kind == KEY_CODE_YES ? "" : character(code);
}

} // namespace wexctl
