// Pins through the chips' character devices only.
#include "platform/line-pin.h"
#include "platform/pin.h"

bool pin_goes_by_sysfs(const WhichPin& /*which*/) {
  return false;
}

PinPtr pin_request(const WhichPin& which, unsigned int flags) {
  return line_pin_request(which, flags);
}
