// Pins through sysfs only.
#include "platform/pin.h"
#include "platform/sysfs-pin.h"
#include "platform/ugpio-extras.h"

const KernelPart& ugpio_kernel_part() {
  return gpio_sysfs_part;
}

bool pin_goes_by_sysfs(const WhichPin& /*which*/) {
  return true;
}

PinPtr pin_request(const WhichPin& which, unsigned int flags) {
  return sysfs_pin_request(which, flags);
}
