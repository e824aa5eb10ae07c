// What a line is found at, which way round a port is, and what is announced of it: small numbers
// all of them, and each a type of its own, so that none is taken for another.
#pragma once

#include "platform/words.h"
#include "port/supervised-utils.h"

#include <glib.h>

#include <array>

/// The raw level of a line, as its hardware has it; a port's logical state is a bool.
enum class Level : guint { Low, High, Unknown };

[[nodiscard]] constexpr Level level_of(bool high) {
  return high ? Level::High : Level::Low;
}

/// What the state of a measured line is as a level: open is low, closed is high.
[[nodiscard]] constexpr Level supervised_level_of(SupervisedState state) {
  switch (state) {
  case SUPERVISED_OPEN:
    return Level::Low;
  case SUPERVISED_CLOSED:
    return Level::High;
  case SUPERVISED_SHORT:
  case SUPERVISED_CUT:
  case SUPERVISED_UNDEFINED:
    break;
  }
  return Level::Unknown;
}

/// Which way round a port is.
enum class Direction { Output, Input };

/// As descriptions, settings and clients write it.
inline constexpr std::array direction_words{Word{"input", Direction::Input},
                                            Word{"output", Direction::Output}};

[[nodiscard]] constexpr const char* direction_word(Direction direction) {
  return direction == Direction::Input ? "input" : "output";
}

/// A state as it is announced: a logical one, or a supervised one by its number. Equal numbers are
/// the same news, whatever they came from.
class ReportedState {
public:
  explicit constexpr ReportedState(bool active) : number_(active ? 1 : 0) {}
  explicit constexpr ReportedState(SupervisedState state) : number_(state) {}

  /// Where only a boolean fits, all but 0 are true.
  [[nodiscard]] constexpr bool active() const { return number_ != 0; }
  [[nodiscard]] constexpr SupervisedState supervised() const {
    return static_cast<SupervisedState>(number_);
  }
  bool operator==(const ReportedState&) const = default;

private:
  guint32 number_;
};
