// The declarations that the daemon builds itself: IOPort, PortAny and SupervisedPort.
#pragma once

#include "event/event.h"
#include "platform/event-library.h"

/// Whether the name is one of the built-in declarations.
[[nodiscard]] bool event_builtin_known(const char* type_name);

/// Whether the event system learns the state at once and whenever it asks, or only by later sends.
enum class InitialState { Withheld, Sent };

/// A new declaration of a built-in type for the port.
[[nodiscard]] NvEventDeclaration*
event_builtin_declaration(IoPort* port, const char* type_name,
                          InitialState initial_state = InitialState::Sent);

/// Whether the state means that someone has cut or shorted the line.
[[nodiscard]] bool event_tampered(guint supervised_state);
