// The screen as lines of styled text. Nothing here draws, waits or asks.
#pragma once

#include "wexctl/live/look.h"
#include "wexctl/live/watch.h"

#include <deque>
#include <string>
#include <vector>

namespace wexctl {

struct Size {
  size_t columns;
  size_t rows;
};

enum class Style {
  Plain,
  Title,
  TitleTrouble,
  Heading,
  Dim,
  Key,
  On,
  Note,
  Trouble,
  Short,
  Cut,
  Closed,
  Open,
  Mark
};

struct Span {
  Style style = Style::Plain;
  std::string text;
  /// Part of the line that is chosen.
  bool chosen = false;
};
using Line = std::vector<Span>;

/// A key and what it does.
struct Hint {
  std::string key;
  std::string text;
};

/// What is to be shown.
struct Scene {
  Look look;
  std::deque<Happening> happenings;
  /// Why what is shown may be old; empty if it is not.
  std::string trouble;
  std::vector<Hint> hints;
  /// All keys, if they are asked for.
  std::vector<Hint> help;
  /// Which port is chosen, and which is the first on the screen.
  size_t chosen = 0;
  size_t top = 0;
};

/// As many lines as there are rows, none wider than the screen. Moves the top as far as it must.
std::vector<Line> draw(Scene& scene, Size size);

} // namespace wexctl
