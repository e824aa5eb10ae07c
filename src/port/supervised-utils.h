// Supervised states and ranges: which band of converter levels means which state of the line.
#pragma once

#include <glib.h>

#include <optional>
#include <span>
#include <vector>

struct IoPort;

/// Numbers and texts are part of the bus interface, the key file and the hardware description.
enum SupervisedState : guint32 {
  SUPERVISED_OPEN = 0,
  SUPERVISED_CLOSED = 1,
  SUPERVISED_SHORT = 2,
  SUPERVISED_CUT = 3,
  SUPERVISED_UNDEFINED = 4,
};

/// A band of levels, both limits inclusive, in converter counts. Upper stands before lower here,
/// unlike in the bus tuple (state, lower, upper).
struct SupervisedRange {
  SupervisedState state;
  guint32 upper;
  guint32 lower;
};

using SupervisedRanges = std::vector<SupervisedRange>;

/// What a line was measured at.
struct SupervisedReadout {
  SupervisedState state = SUPERVISED_UNDEFINED;
  guint32 level = 0;
};

/// Codes of `io_supervised_error_quark`.
enum IoSupervisedError {
  IO_SUPERVISED_ERROR_GENERIC = 0,
  IO_SUPERVISED_ERROR_NO_PORT = 1,
  IO_SUPERVISED_ERROR_NOT_SUPERVISABLE = 2,
  IO_SUPERVISED_ERROR_NOT_SUPERVISED = 3,
  IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE = 4,
};

/// Error domain of the supervision model ("io-supervised-error-quark").
GQuark io_supervised_error_quark();

/// Exact, case-sensitive; anything unknown, NULL included, is SUPERVISED_UNDEFINED.
[[nodiscard]] SupervisedState supervised_range_string2state(const char* name);

/// Static text of a state; a value outside the enumeration is a programming error.
[[nodiscard]] const char* supervised_range_state2string(SupervisedState state);

/// New floating `a(suu)` variant of (state, lower, upper), in the order of the ranges.
[[nodiscard]] GVariant* supervised_ranges2gvariant(std::span<const SupervisedRange> ranges);

/// The ranges of an `a(suu)` variant, sorted by lower limit; limits and states are not validated.
[[nodiscard]] SupervisedRanges supervised_gvariant2ranges(GVariant* value);

/// GCompareFunc-like: zero when both ranges describe the same state.
gint range_equal(const SupervisedRange* a, const SupervisedRange* b);

/// The last of the ranges that holds the level, or nullptr.
[[nodiscard]] const SupervisedRange* supervised_range_of(std::span<const SupervisedRange> ranges,
                                                         guint32 level);

/// Slot of the supervised backends: the port's ranges.
[[nodiscard]] const SupervisedRanges& supervised_get_supervised_ranges(IoPort* port);

/// Slot of the supervised backends: replaces the port's ranges. To have none is refused with
/// IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE.
[[nodiscard]] bool supervised_set_supervised_ranges(IoPort* port, SupervisedRanges ranges,
                                                    GError** error);

/// True for inputs and configurable ports.
[[nodiscard]] bool supervised_is_supervisable(IoPort* port);

/// The state of `level` by the port's ranges: the last range in list order that holds it, else
/// SUPERVISED_UNDEFINED. Nothing, with an error, when the port's backend has no ranges.
[[nodiscard]] std::optional<SupervisedState> supervised_lookup_state(IoPort* port, guint32 level,
                                                                     GError** error);
/// That state together with the level; nothing, with an error, likewise.
[[nodiscard]] std::optional<SupervisedReadout> supervised_readout_of(IoPort* port, guint32 level,
                                                                     GError** error);
