// Pins on the kernel's sysfs GPIO files.
#pragma once

#include "platform/pin.h"

/// Whether that pin can be taken here: any can where pins are exported, and one that is exported
/// already can anywhere.
[[nodiscard]] bool sysfs_has_pin(const WhichPin& which);

/// See pin_request. Exports the pin; one that is exported already is used and left so.
[[nodiscard]] PinPtr sysfs_pin_request(const WhichPin& which, unsigned int flags);
