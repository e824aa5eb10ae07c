// Pins through the chips' character devices only.
#include "platform/line-pin.h"
#include "platform/pin.h"
#include "platform/ugpio-extras.h"

const KernelPart& ugpio_kernel_part() {
  return gpio_chips_part;
}

bool pin_goes_by_sysfs(const WhichPin& /*which*/) {
  return false;
}

PinPtr pin_request(const WhichPin& which, unsigned int flags) {
  return line_pin_request(which, flags);
}
