// Timed sequences of states on one port, and the manual-trigger ports that stand for video
// channels.
#pragma once

#include <glib.h>

#include "port/ioport.h"

#include <vector>

/// One step: set a state, hold it.
struct ActionStep {
  /// Borrowed from the sequence's own reference; the same port in every step.
  IoPort* port;
  /// Virtual: announced only, instead of writing the hardware. The same in every step.
  Trigger trigger;
  bool state;
  gint32 duration_ms;
};

using ActionSequence = std::vector<ActionStep>;

/// Longest sequence that a client may start.
inline constexpr gsize action_sequence_step_limit = 100'000;

enum class [[nodiscard]] SequenceStart{
    Started,
    /// The port cannot run the sequence.
    Refused,
    /// The system has no thread left for it.
    NoThread,
};

/// Runs `steps` on the port in a detached thread of its own, which owns `steps` and a reference of
/// the port from then on. Anything but Started has been logged as a warning. `steps` must not be
/// empty and the port not be busy (io_port_lock_taken).
[[nodiscard]] SequenceStart io_port_run_action_sequence(IoPort* ioport, ActionSequence steps);

/// Ends the sequence that runs on the port, if one does, after the step under way, whose state the
/// port keeps; returns when it has ended.
void io_port_stop_action_sequence(IoPort* ioport);

/// Numbers of the ports on which sequences run, in ascending order.
[[nodiscard]] std::vector<gint> action_sequences_running();

/// Cancels whatever sequence still runs, on any port, and waits until all have ended.
void action_sequences_stop();

/// A new manual-trigger port for a video channel (1-based), disabled.
[[nodiscard]] IoPortRef io_port_create_manual_trigger(gint channel);

/// Number of the port of channel 1; also switches the virtual inputs on.
void virtual_input_set_first_port_no(gint port_no);
gint virtual_input_get_first_port_no();
/// Whether the hardware description asked for virtual inputs.
[[nodiscard]] bool virtual_input_in_use();
