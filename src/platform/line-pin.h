// Pins through line requests (version 2) on the character devices of their chips.
//
// A request holds its line as long as its descriptor is open; nothing of it outlives the daemon. A
// pin that is watched has its edges queued there.
#pragma once

#include "platform/pin.h"

/// See pin_request. Nothing is taken on a guess: a name that several lines have is refused with a
/// warning that names them, and so is a number that nothing tells the line of.
[[nodiscard]] PinPtr line_pin_request(const WhichPin& which, unsigned int flags);
