// Pins through sysfs where the kernel has that interface, else through the chips' character
// devices.
#include "platform/line-pin.h"
#include "platform/pin.h"
#include "platform/sysfs-pin.h"
#include "platform/ugpio-extras.h"

const KernelPart& ugpio_kernel_part() {
  static constexpr KernelPart either{.path = gpio_sysfs_part.path,
                                     .option = gpio_sysfs_part.option,
                                     .instead = gpio_chips_part.path};
  return either;
}

bool pin_goes_by_sysfs(const WhichPin& which) {
  return sysfs_has_pin(which);
}

PinPtr pin_request(const WhichPin& which, unsigned int flags) {
  return sysfs_has_pin(which) ? sysfs_pin_request(which, flags) : line_pin_request(which, flags);
}
