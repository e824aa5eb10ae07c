// One I/O port: identity, kind, direction, inversion, user settings, events, and the operation
// table of the backend that drives its hardware.
//
// Threads: everything happens on the main thread except action sequences, which run on a thread of
// their own. `IoPort::gate` keeps state writes and configuration changes apart from a running
// sequence. docs/architecture.md has the order of all locks.
#pragma once

#include <glib.h>

#include "description/limits.h"
#include "platform/handles.h"
#include "port/port-gate.h"
#include "port/states.h"
#include "port/supervised-utils.h"

#include <array>
#include <atomic>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct IoEvent;
struct IoPort;

enum PortType : guint { PORT_INPUT = 0, PORT_OUTPUT = 1, PORT_IO_CTRL = 2 };

enum BackendKind : guint {
  BACKEND_VIRTUAL = 0,
  BACKEND_GPIO = 1,
  BACKEND_SPIADC = 2,
  BACKEND_SPI = 3,
  BACKEND_IIO = 4,
  BACKEND_IIO_INTERRUPT = 5,
  BACKEND_SYSFS = 6,
  BACKEND_IOBOX = 7,
  BACKEND_NULL = 8,
  BACKEND_CHECK = 9,
  BACKEND_ZWAVE = 10,
};

enum ButtonType : guint { BUTTON_NONE = 0, BUTTON_PULSE = 1, BUTTON_ACTINACT = 2 };
enum PortMode : guint { PORT_MODE_NONE = 0, PORT_MODE_MONOSTABLE = 1, PORT_MODE_BISTABLE = 2 };

/// Texts of ButtonType and PortMode, as stored and published.
inline constexpr std::array<const char*, 3> button_type_string{"none", "pulse", "actinact"};
inline constexpr std::array<const char*, 3> port_mode_string{"", "monostable", "bistable"};

/// Selects one side of a port, or the port as a whole.
enum class PortSide { Input, Output, Port };

/// What brought a state about: the hardware, or a client that set a virtual state.
enum class Trigger { Hardware, Virtual };

/// The word for an inversion: an inverted contact is active while it is open.
[[nodiscard]] constexpr const char* open_or_closed(bool activelow) {
  return activelow ? "open" : "closed";
}
inline constexpr std::array activelow_words{Word{open_or_closed(true), true},
                                            Word{open_or_closed(false), false}};

/// A backend's operations: one constant table per kind of hardware. Empty slots hold nullptr.
struct PortFunctions {
  /// Takes the hardware into use; an output starts at the level `start`.
  bool (*setup)(IoPort* port, Level start) = nullptr;
  /// Empty: not supervisable.
  bool (*is_supervisable)(IoPort* port) = nullptr;
  /// The port holds the new setting already.
  bool (*set_supervised)(IoPort* port) = nullptr;
  /// Empty: the port has no ranges.
  const SupervisedRanges& (*get_supervised_ranges)(IoPort* port) = nullptr;
  /// A refusal leaves the ranges as they were.
  bool (*set_supervised_ranges)(IoPort* port, SupervisedRanges ranges, GError** error) = nullptr;
  std::optional<SupervisedReadout> (*get_supervised_readout)(IoPort* port,
                                                             GError** error) = nullptr;
  Level (*get_state)(IoPort* port) = nullptr;
  void (*set_state)(IoPort* port, Level level) = nullptr;
  /// Starts reporting changes of an input; a watched port keeps the watch it has.
  bool (*set_watch)(IoPort* port) = nullptr;
  void (*set_direction)(IoPort* port, Direction direction) = nullptr;
  /// One attribute of the hardware description.
  void (*parse_data)(IoPort* port, const char* element, const char* key,
                     const char* value) = nullptr;
  /// Releases `backend_private`; does nothing when there is none.
  void (*free)(IoPort* port) = nullptr;
  /// Stops the hardware, keeping `backend_private`. Empty: `free` does it.
  void (*close)(IoPort* port) = nullptr;
};

/// Whether every slot that may not be empty is filled; for a static_assert beside each table.
[[nodiscard]] constexpr bool port_functions_valid(const PortFunctions& table) {
  return table.setup && table.get_state && table.set_state && table.set_watch && table.set_direction
         && table.parse_data && table.free;
}

void io_event_free(IoEvent* event);

using IoEventPtr = std::unique_ptr<IoEvent, FreeWith<io_event_free>>;

/// A text that may be absent; NULL and absent are the same to `c_str_or_null`.
using OptionalText = std::optional<std::string>;

/// The text, or NULL when there is none. Valid as long as `text` is unchanged.
[[nodiscard]] inline const char* c_str_or_null(const OptionalText& text) {
  return text ? text->c_str() : nullptr;
}

struct IoPort {
  PortType type = PORT_INPUT;
  BackendKind backend = BACKEND_VIRTUAL;
  gpointer backend_private = nullptr;
  const PortFunctions* functions = nullptr;
  GHashTable* properties = nullptr;
  /// Identity in the hardware description; group name in the key file.
  OptionalText name;
  OptionalText input_name;
  OptionalText output_name;
  std::string usage;
  /// 0-based; user-facing texts show it plus one.
  gint32 number = -1;
  bool activelow_output = false;
  bool activelow_input = false;
  /// Only for a configurable port.
  Direction direction = Direction::Input;
  bool supervised = false;
  ButtonType button_type = BUTTON_NONE;
  /// Milliseconds.
  guint32 pulse_time = 0;
  /// Newest first.
  std::list<IoEventPtr> events;
  SupervisedRanges ranges;
  std::atomic<bool> enabled{true};
  std::atomic<bool> is_setup{false};
  /// What it was watched by is gone; a refresh sets it up anew.
  bool hardware_gone = false;
  PortGate gate;
  std::atomic<guint32> refcount{1};
  /// May fail its set-up and then waits in the dynamic list.
  bool optional = false;
  /// Milliseconds.
  gint32 delay_time = 0;
  PortMode mode = PORT_MODE_BISTABLE;
  guint32 spare_count = 1;

  /// One attribute that the hardware description gave to the backend.
  struct BackendAttribute {
    std::string element;
    std::string key;
    std::string value;
  };
  /// Everything `parse_data` was told, in order: a port whose hardware was closed is described to
  /// its backend again before the next set-up.
  std::vector<BackendAttribute> backend_description;
  /// File of the hardware description that defined the port, for messages.
  std::string origin;
  /// Why the port is not in service, where that is known.
  std::string absence;
  /// Held while the converter is read out, which a sequence's events may ask for as well. A leaf.
  Mutex readout_lock;
};

// Creation and lifetime

/// Drops a reference (NULL is ignored); the last one frees the port. Any thread.
void io_port_unref(IoPort* ioport);
/// Owns one reference of a port.
using IoPortRef = std::unique_ptr<IoPort, FreeWith<io_port_unref>>;

/// A new port with one reference.
[[nodiscard]] IoPortRef io_port_new();
/// A further reference; none of no port. Any thread.
[[nodiscard]] IoPortRef io_port_ref(IoPort* ioport);
/// Ends a running sequence and frees the port, whatever its reference count.
void io_port_free(IoPort* ioport);
/// Stores the kind, attaches its backend and returns the table; nullptr (kind stored, table
/// unchanged) when no backend is of that kind.
[[nodiscard]] const PortFunctions* io_port_set_backend(IoPort* ioport, BackendKind kind);
/// Takes the port's hardware into use. False when the backend refuses.
[[nodiscard]] bool io_port_setup(IoPort* ioport);
/// Ends a running sequence and releases the hardware; the port can be set up again later.
void io_port_close(IoPort* ioport);
/// Hands one attribute of the hardware description to the backend.
void io_port_parse_backend_data(IoPort* ioport, const char* element, const char* key,
                                const char* value);
/// Starts the input watch of an enabled input; false for any other port.
[[nodiscard]] bool io_port_set_watch(IoPort* ioport);

// Kind and direction

/// Whether the port can be an input, or an output.
[[nodiscard]] inline bool io_port_has_input_side(const IoPort* port) {
  return port->type == PORT_INPUT || port->type == PORT_IO_CTRL;
}
[[nodiscard]] inline bool io_port_has_output_side(const IoPort* port) {
  return port->type == PORT_OUTPUT || port->type == PORT_IO_CTRL;
}
/// Whether the port is an input, or one that was turned to be one.
[[nodiscard]] inline bool io_port_faces_inwards(const IoPort* port) {
  return port->type == PORT_INPUT
         || (port->type == PORT_IO_CTRL && port->direction == Direction::Input);
}
/// The same for a port that must have its backend.
[[nodiscard]] bool io_port_input(IoPort* port);
/// As io_port_input, but an unknown type is a programming error.
[[nodiscard]] bool io_port_direction_input(const IoPort* ioport);
/// Switches a configurable port; false for any other port. Cancels a running sequence.
[[nodiscard]] bool io_port_set_direction(IoPort* ioport, Direction direction);

// State

/// Logical state; 0 for a port that is not set up.
[[nodiscard]] bool io_port_get_state(IoPort* ioport);
/// Sets an output's logical state; waits for a running sequence to be between steps. False when
/// the port is no set-up hardware output.
[[nodiscard]] bool io_port_set_state(IoPort* ioport, bool state);
/// The state setter for callers that hold the gate: writes the hardware, announces a change.
void io_port_set_state_internal(IoPort* ioport, bool state) WEXD_REQUIRES(ioport->gate);
/// Announces a virtual state (and stores it in a virtual output); always true.
[[nodiscard]] bool io_port_set_virtual(IoPort* ioport, bool state);
/// Announces a state that a backend or peer saw: the port's events, then PortChanged.
void io_port_trigger(IoPort* ioport, ReportedState state);
/// Sends the port's applicable events, whether or not the port is enabled.
void io_port_send_events(IoPort* ioport, ReportedState state);
/// Announces PortChanged for an enabled port.
void io_port_send_signal(IoPort* port, Trigger trigger, ReportedState state);
/// The inversion of one side; `side` is Input or Output.
[[nodiscard]] bool io_port_get_activelow(IoPort* ioport, PortSide side);
/// Sets the inversion of one side. On a set-up output the physical line flips so that the logical
/// state stays. False when the side does not exist or is read-only. Cancels a running sequence.
[[nodiscard]] bool io_port_set_activelow(IoPort* ioport, bool value, PortSide side);

// Names and usage

/// Copy of the current side's name (g_free), or NULL.
[[nodiscard]] gchar* io_port_get_name(IoPort* ioport);
/// Copies (g_free) of the names of the sides that the port has; the other is left untouched.
void io_port_get_names(IoPort* ioport, gchar** input_name, gchar** output_name);
/// Rename one side. False when the port lacks the side, or its names are read-only, or `name` is
/// longer than io_port_text_limit.
[[nodiscard]] bool io_port_set_input_name(IoPort* ioport, const char* name);
[[nodiscard]] bool io_port_set_output_name(IoPort* ioport, const char* name);
/// Copy (g_free), never NULL for a port.
[[nodiscard]] gchar* io_port_get_usage(IoPort* ioport);
/// False when the usage is read-only or `usage` is longer than io_port_text_limit.
[[nodiscard]] bool io_port_set_usage(IoPort* ioport, const char* usage);

// Properties

/// Stores true when `value` is "true" in any case, else false; replaces an earlier entry.
void io_port_add_property(IoPort* ioport, const char* key, const char* value);
/// False when absent.
[[nodiscard]] bool io_port_get_property(const IoPort* ioport, const char* key);
/// Whether the key exists; its value goes to `value`, which is untouched otherwise.
[[nodiscard]] bool io_port_lookup_property(const IoPort* ioport, const char* key, bool* value);
/// Keys (char*, owned by the port) and values (GINT_TO_POINTER), paired by position. The caller
/// frees the lists, not their contents.
[[nodiscard]] GList* io_port_get_property_keys(IoPort* ioport);
[[nodiscard]] GList* io_port_get_property_values(IoPort* ioport);

// Supervision

[[nodiscard]] bool io_port_is_supervisable(IoPort* port);
/// Switches supervision; false when the port is not supervisable. Cancels a running sequence.
[[nodiscard]] bool io_port_set_supervised(IoPort* port, bool supervised);
/// True when the port currently acts as a supervised input.
[[nodiscard]] bool io_port_supervised_input(IoPort* port);
/// The port's own; nullptr when its backend has none.
[[nodiscard]] const SupervisedRanges* io_port_get_supervised_ranges(IoPort* port);
/// Replaces the port's ranges; false, with those as they were, when the backend refuses.
[[nodiscard]] bool io_port_set_supervised_ranges(IoPort* port, SupervisedRanges ranges,
                                                 GError** error);
/// Appends a range. Limits below 65536, lower strictly below upper. Cancels a running sequence once
/// the range is found valid.
[[nodiscard]] bool io_port_add_supervised_range(IoPort* port, const char* state, gint lower,
                                                gint upper, GError** error);
[[nodiscard]] std::optional<SupervisedReadout> io_port_get_supervised_readout(IoPort* port,
                                                                              GError** error);
/// Never fails: a failed readout is logged and reads SUPERVISED_UNDEFINED.
[[nodiscard]] SupervisedState io_port_get_supervised_state(IoPort* ioport);
/// The states that a supervised port can report, by name.
[[nodiscard]] std::span<const char* const> io_port_get_supported_states(IoPort* port);

// Other

/// Switches events and signals on or off, declaring or withdrawing the port's events.
void io_port_set_enabled(IoPort* ioport, bool enabled);
/// True when the port is enabled and takes part in the any-port event.
[[nodiscard]] bool io_port_got_port_any(IoPort* ioport);
/// True when somebody drives the port or a sequence runs on it. Never blocks.
[[nodiscard]] bool io_port_lock_taken(IoPort* ioport);
void io_port_reset_event_filters(IoPort* ioport);
/// Declares the port's events again, which tell of what it is and how it is called.
void io_port_redeclare_events(IoPort* ioport);
/// Accepts 1 and 2 only.
[[nodiscard]] bool io_port_set_mode(IoPort* ioport, PortMode mode);
/// PORT_MODE_NONE for NULL.
[[nodiscard]] PortMode io_port_get_mode(IoPort* ioport);
void io_port_set_delay_time(IoPort* ioport, gint32 delay_time);
/// -1 for NULL.
gint32 io_port_get_delay_time(IoPort* ioport);
/// Ignores 0.
void io_port_set_spare_count(IoPort* ioport, guint32 count);
guint32 io_port_get_spare_count(IoPort* ioport);
