// The terminal: lines out, keys in.
#pragma once

#include "wexctl/live/view.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct screen;

namespace wexctl {

/// Throws unless input and output are a terminal whose cursor can be moved.
void require_terminal();

/// A key by its name ("up", "space"), or the character that it types.
bool is_key(std::string_view name);

/// Has the terminal for as long as it lives, and leaves it as it was.
class Screen {
public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  [[nodiscard]] Size size() const;
  /// The terminal has another size now.
  void follow_size();
  void show(const std::vector<Line>& lines);
  /// The next key that was pressed, if there is one; one without a name is empty.
  std::optional<std::string> key();

private:
  /// The library's.
  screen* screen_;
};

} // namespace wexctl
