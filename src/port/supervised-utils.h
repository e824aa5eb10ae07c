// Supervised states and ranges: which band of converter levels means which state of the line.
//
// Ownership of range lists: a port owns its list (`IoPort::ranges`) and is the only one who frees
// it. Getters lend the list; a successful set hands the new list over to the port, which frees the
// one it replaces; a refused set leaves the new list with the caller. Handing a port the list that
// it already owns (after appending to it) is allowed.
#pragma once

#include <glib.h>

#include <memory>

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
SupervisedState supervised_range_string2state(const char* name);

/// Static text of a state; a value outside the enumeration is a programming error.
const char* supervised_range_state2string(SupervisedState state);

/// New floating `a(suu)` variant of (state, lower, upper), in list order; NULL gives an empty
/// array.
[[nodiscard]] GVariant* supervised_ranges2gvariant(GList* ranges);

/// New list from an `a(suu)` variant, sorted by lower limit; limits and states are not validated.
[[nodiscard]] GList* supervised_gvariant2ranges(GVariant* value);

/// GCompareFunc-like: zero when both ranges describe the same state.
gint range_equal(const SupervisedRange* a, const SupervisedRange* b);

/// Frees a range list and its records; NULL is the empty list.
void supervised_ranges_free(GList* ranges);

/// Slot of the supervised backends: lends the port's list.
[[nodiscard]] GList* supervised_get_supervised_ranges(IoPort* port);

/// Slot of the supervised backends: takes over `ranges` and frees the list it replaces. NULL is
/// refused with IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE.
[[nodiscard]] gboolean supervised_set_supervised_ranges(IoPort* port, GList* ranges,
                                                        GError** error);

/// True for inputs and configurable ports.
[[nodiscard]] gboolean supervised_is_supervisable(IoPort* port);

/// The state of `level` by the port's ranges: the last range in list order that holds it, else
/// SUPERVISED_UNDEFINED. Returns false with an error when the backend lends no list.
[[nodiscard]] gboolean supervised_lookup_state(IoPort* port, guint32 level, guint* state,
                                               GError** error);
