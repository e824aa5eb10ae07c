// The supervision side of a port: thin operations over the backend's slots.
#include "port/ioport.h"

#include "platform/checks.h"
#include "platform/log.h"
#include "port/errors.h"

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
  const PortConfigLock config_lock(port);
  port->supervised = supervised;
  if (port->functions->set_supervised != nullptr) {
    port->functions->set_supervised(port, supervised);
  }
  if (port->type == PORT_IO_CTRL && io_port_input(port)) {
    std::ignore = io_port_set_direction(port, true);
  }
  return true;
}

bool io_port_supervised_input(IoPort* port) {
  WEXD_ASSERT_NONNULL(port);
  return port->supervised
         && (port->type == PORT_INPUT || (port->type == PORT_IO_CTRL && port->direction));
}

bool io_port_get_supervised_ranges(IoPort* port, GList** ranges) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  WEXD_ASSERT_NONNULL(ranges);
  if (port->functions->get_supervised_ranges == nullptr) {
    return false;
  }
  *ranges = port->functions->get_supervised_ranges(port);
  return true;
}

bool io_port_set_supervised_ranges(IoPort* port, GList* ranges, GError** error) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  return port->functions->set_supervised_ranges != nullptr
         && port->functions->set_supervised_ranges(port, ranges, error);
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
  const PortConfigLock config_lock(port);
  GList* ranges = nullptr;
  if (!io_port_get_supervised_ranges(port, &ranges)) {
    return range_error(error, IO_SUPERVISED_ERROR_GENERIC, "Failed to get ranges from port.");
  }

  auto* range = g_new0(SupervisedRange, 1);
  range->state = range_state;
  range->lower = static_cast<guint32>(lower);
  range->upper = static_cast<guint32>(upper);
  // Always at the end: a later range of the same state or level wins in the lookup.
  GList* const extended = g_list_append(ranges, range);
  if (!io_port_set_supervised_ranges(port, extended, error)) {
    GList* const shortened = g_list_remove(extended, range);
    g_assert(shortened == ranges);
    g_free(range);
    return false;
  }
  return true;
}

bool io_port_get_supervised_readout(IoPort* port, guint* state, guint* level, GError** error) {
  WEXD_ASSERT_NONNULL(port);
  WEXD_ASSERT_NONNULL(port->functions);
  WEXD_ASSERT_NONNULL(state);
  WEXD_ASSERT_NONNULL(level);
  if (port->functions->get_supervised_readout == nullptr) {
    g_set_error_literal(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC,
                        "Not applicable for port.");
    return false;
  }
  if (!io_port_is_supervisable(port)) {
    return range_error(error, IO_SUPERVISED_ERROR_NOT_SUPERVISED, "Port is non-supervised");
  }
  const std::lock_guard guard(port->readout_lock);
  return port->functions->get_supervised_readout(port, state, level, error);
}

SupervisedState io_port_get_supervised_state(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  if (!ioport->is_setup || !io_port_is_supervisable(ioport)) {
    return SUPERVISED_OPEN;
  }
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  g_autoptr(GError) error = nullptr;
  if (!io_port_get_supervised_readout(ioport, &state, &level, &error)) {
    g_warning("%sFailed to read supervised state: %s.", log_prefix,
              error != nullptr ? error->message : "no reason given");
    return SUPERVISED_UNDEFINED;
  }
  return static_cast<SupervisedState>(state);
}

bool io_port_get_supported_states(IoPort* /*port*/, GList** states) {
  for (const auto state : {SUPERVISED_CLOSED, SUPERVISED_OPEN, SUPERVISED_SHORT, SUPERVISED_CUT}) {
    *states = g_list_append(*states, const_cast<char*>(supervised_range_state2string(state)));
  }
  return true;
}

void io_port_replace_ranges(IoPort* port, GList* ranges) {
  if (port->ranges != ranges) {
    supervised_ranges_free(std::exchange(port->ranges, ranges));
  }
}
