// Hardware that fails for a while: how long it is left alone, and how often that is told.
//
// A wire must not go deaf because of one failure, and a failure must not cost a processor or fill
// the log. So what failed is tried again after a rest of 100 ms, and what may fail for ever rests
// longer each time, up to a second. It is told when it begins, once a minute while it lasts, and
// when it ends. Main thread only.
#pragma once

#include <glib.h>

inline constexpr guint shortest_rest_ms = 100;
inline constexpr guint longest_rest_ms = 1000;

/// Rests that grow.
class Rest {
public:
  /// How long to rest this time, in milliseconds.
  guint next();
  /// The next rest is a short one again.
  void reset() { next_ms_ = shortest_rest_ms; }

private:
  guint next_ms_ = shortest_rest_ms;
};

/// One trouble, as the log has it.
class Trouble {
public:
  /// Whether it would be told if it were noticed now.
  [[nodiscard]] bool due() const;
  /// It is there; true when that is to be told.
  [[nodiscard]] bool tell();
  /// It is over; true when it was there before.
  [[nodiscard]] bool end();

private:
  /// Monotonic time from which it is told again; 0 while all is well.
  gint64 due_us_ = 0;
};
