// A port's event records and their way into the device's event system.
#pragma once

#include <glib.h>

#include "port/states.h"

#include <list>
#include <optional>
#include <string>

struct IoPort;

/// One key of an event, from the hardware description.
struct EventKeyValue {
  std::optional<std::string> key;
  std::optional<std::string> value;
  std::optional<std::string> key_nice_name;
  std::optional<std::string> value_nice_name;
  /// "int", "bool", "double" or "string".
  std::optional<std::string> type;
  /// Marks the key that carries the event's data.
  bool property = false;
};

/// One event record of a port.
struct IoEvent {
  std::optional<std::string> declaration;
  /// Id from the event library; 0 while not declared.
  guint id = 0;
  /// Declared as a state rather than an occurrence.
  bool is_property = false;
  /// The port's hardware was released since the declaration: what the event system holds for the
  /// state is no longer known to be true.
  bool stale = false;
  /// Whether the event applies while the port is an output, an input, a supervised input.
  bool output = true;
  bool input = true;
  bool supervised_input = false;
  /// Declare, but never send.
  bool declare_only = false;
  /// The next send goes out even if the value is unchanged.
  bool filter_reset = false;
  /// What was sent last.
  ReportedState last_value{false};
  /// Newest first.
  std::list<EventKeyValue> key_values;
};

inline constexpr const char* event_io_port = "IOPort";
inline constexpr const char* event_port_any = "PortAny";
inline constexpr const char* event_supervised_port = "com.norv.Event.Wxd.SupervisedPort";

/// Whether the event fits what the port currently is (output, input, supervised input).
[[nodiscard]] bool io_event_currently_applicable(IoPort* port, const IoEvent* event);
/// Declares the event if it applies, is not declared, and its port is set up; before that, the port
/// has no state that an event could tell. An event that was declared already and went stale sends
/// the state that its port has now. Always true, failures are logged.
[[nodiscard]] bool io_event_declare_event(IoPort* port, IoEvent* event);
/// Sends the event with `value`; true when the event system took it.
[[nodiscard]] bool io_event_send_event(IoPort* port, IoEvent* event, ReportedState value);
/// Withdraws and declares again, so that new names reach the declaration.
void io_event_redeclare_port(IoPort* port, IoEvent* event);
/// Withdraws the declaration; the shared any-port declaration stays.
void io_event_undeclare_event(IoEvent* event);
/// Notes that the port's hardware is released; the declaration stays.
void io_event_mark_stale(IoEvent* event);
/// Lets the next send pass the duplicate filter.
void io_event_reset_filter(IoEvent* event);
/// Withdraws and frees; NULL is allowed.
void io_event_free(IoEvent* event);
