#include "platform/ugpio-named.h"

#include "platform/gpio-names.h"

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
