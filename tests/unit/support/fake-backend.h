// A backend registry for tests: every kind of hardware is a record in memory that tells what was
// asked of it and answers what it is told to answer.
//
// Kinds 4 ("iio") and 5 ("iio-interrupt") can be supervised; kind 5 also has a close operation.
// All others have the required operations only.
#pragma once

#include "port/ioport.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace fake_backend {

/// What the fake keeps for one port, from set-up functions to free.
struct Record {
  std::atomic<Level> level{Level::Low};
  std::vector<std::string> attributes;
  /// What a supervised readout answers; a message makes it fail.
  SupervisedReadout readout{.state = SUPERVISED_OPEN};
  std::optional<std::string> readout_error;
};

/// The port's record, or nullptr.
Record* record(const IoPort* port);

/// What was asked of the hardware, oldest first, as "3: set_state 1" (port number, operation,
/// argument); reading (get_state, readouts, slots that only answer) is not listed. Clears it.
std::vector<std::string> take_calls();

/// Numbers of ports whose set-up fails.
extern std::set<gint> failing;
/// Numbers whose set-ups succeed that many times and fail from then on.
extern std::map<gint, int> failing_after;
/// Off: operations are not listed, for tests that run very many.
extern std::atomic<bool> listing;
/// Whether the supervised kinds refuse new ranges without giving a reason.
extern bool refuse_ranges;
/// Records alive: every port alive that has one.
int live_records();

/// Back to the defaults, for the next test.
void reset();

} // namespace fake_backend
