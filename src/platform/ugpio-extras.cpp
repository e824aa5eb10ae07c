#include "platform/ugpio-extras.h"

#include "platform/gpio-names.h"

const KernelPart& ugpio_kernel_part() {
  return gpio_sysfs_part;
}

ugpio_t* ugpio_request_named(const char* name) {
  if (const auto number = gpio_number_of_name(name)) {
    return ugpio_request(*number, name);
  }
  return nullptr;
}

ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags) {
  if (const auto number = gpio_number_of_name(name)) {
    return ugpio_request_one(*number, flags, name);
  }
  return nullptr;
}

bool ugpio_goes_by_sysfs(const char* /*name*/, unsigned int /*number*/) {
  return true;
}

GIOCondition ugpio_edge_condition(const ugpio_t* /*pin*/, GIOCondition of_value_file) {
  return of_value_file;
}

int ugpio_take_edges(ugpio_t* /*pin*/) {
  return 0;
}
