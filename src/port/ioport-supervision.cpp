// The supervision side of a port: thin operations over the backend's slots.
#include "port/ioport.h"

#include "platform/checks.h"
#include "platform/log.h"
#include "port/errors.h"
#include "port/port-place.h"

#include <tuple>

namespace {

constexpr gint level_limit = 65536;

bool range_error(GError** error, IoSupervisedError code, const char* message) {
  g_set_error_literal(error, io_supervised_error_quark(), code, message);
  return false;
}

} // namespace

bool io_port_is_supervisable(IoPort* port) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  return port->functions->is_supervisable != nullptr && port->functions->is_supervisable(port);
}

bool io_port_set_supervised(IoPort* port, bool supervised) {
  if (!io_port_is_supervisable(port)) {
    return false;
  }
  const PortGate::Configuration change(port->gate);
  const PortPlace place(port);
  port->supervised = supervised;
  if (port->functions->set_supervised != nullptr) {
    port->functions->set_supervised(port);
  }
  if (port->type == PORT_IO_CTRL && io_port_input(port)) {
    std::ignore = io_port_set_direction(port, Direction::Input);
  }
  return true;
}

bool io_port_supervised_input(IoPort* port) {
  WEXD_ASSERT_NONNULL(port);
  return port->supervised && io_port_faces_inwards(port);
}

const SupervisedRanges* io_port_get_supervised_ranges(IoPort* port) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  return port->functions->get_supervised_ranges != nullptr
             ? &port->functions->get_supervised_ranges(port)
             : nullptr;
}

bool io_port_set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** error) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  return port->functions->set_supervised_ranges != nullptr
         && port->functions->set_supervised_ranges(port, std::move(ranges), error);
}

bool io_port_add_supervised_range(IoPort* port, const char* state, gint lower, gint upper,
                                  GError** error) {
  // Signed comparisons: a negative limit passes the first two.
  if (lower >= level_limit || upper >= level_limit || lower >= upper) {
    return range_error(error, IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE, "Invalid range.");
  }
  const auto range_state = supervised_range_string2state(state);
  if (range_state == SUPERVISED_UNDEFINED) {
    return range_error(error, IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE, "State is undefined.");
  }
  WEXD_ASSERT_NONNULL(port);
  // A sequence that announces supervised states reads the list in its own thread.
  const PortGate::Configuration change(port->gate);
  const SupervisedRanges* const ranges = io_port_get_supervised_ranges(port);
  if (ranges == nullptr) {
    return range_error(error, IO_SUPERVISED_ERROR_GENERIC, "Failed to get ranges from port.");
  }
  // Always at the end: a later range of the same state or level wins in the lookup.
  auto extended = *ranges;
  extended.push_back({.state = range_state,
                      .upper = static_cast<guint32>(upper),
                      .lower = static_cast<guint32>(lower)});
  return io_port_set_supervised_ranges(port, std::move(extended), error);
}

std::optional<SupervisedReadout> io_port_get_supervised_readout(IoPort* port, GError** error) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  if (port->functions->get_supervised_readout == nullptr) {
    g_set_error_literal(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                        "Not applicable for port.");
    return std::nullopt;
  }
  if (!io_port_is_supervisable(port)) {
    std::ignore = range_error(error, IO_SUPERVISED_ERROR_NOT_SUPERVISED, "Port is non-supervised");
    return std::nullopt;
  }
  const MutexLock guard(port->readout_lock);
  const PortPlace place(port);
  return port->functions->get_supervised_readout(port, error);
}

SupervisedState io_port_get_supervised_state(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  if (!ioport->is_setup || !io_port_is_supervisable(ioport)) {
    return SUPERVISED_OPEN;
  }
  g_autoptr(GError) error = nullptr;
  const auto readout = io_port_get_supervised_readout(ioport, &error);
  if (!readout) {
    g_warning("%sFailed to read supervised state: %s.", log_prefix,
              error != nullptr ? error->message : "no reason given");
    return SUPERVISED_UNDEFINED;
  }
  return readout->state;
}

std::span<const char* const> io_port_get_supported_states(IoPort* /*port*/) {
  static const std::array names{
      supervised_range_state2string(SUPERVISED_CLOSED),
      supervised_range_state2string(SUPERVISED_OPEN),
      supervised_range_state2string(SUPERVISED_SHORT),
      supervised_range_state2string(SUPERVISED_CUT),
  };
  return names;
}
