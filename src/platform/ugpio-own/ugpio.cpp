// Our own libugpio.
#include <ugpio/ugpio.h>

#include "platform/pin.h"
#include "platform/ugpio-extras.h"

#include <cerrno>

namespace {

PinLevel pin_level(int value) {
  return value != 0 ? PinLevel::High : PinLevel::Low;
}

} // namespace

ugpio_t* ugpio_request(unsigned int number, const char* label) {
  return ugpio_request_one(number, UGPIOF_DIR_UNKNOWN, label);
}

ugpio_t* ugpio_request_one(unsigned int number, unsigned int flags, const char* /*label*/) {
  return pin_request({.number = number}, flags).release();
}

ugpio_t* ugpio_request_named(const char* name) {
  return ugpio_request_one_named(name, UGPIOF_DIR_UNKNOWN);
}

ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags) {
  return pin_request({.name = name}, flags).release();
}

bool ugpio_goes_by_sysfs(const char* name, unsigned int number) {
  return pin_goes_by_sysfs({.name = name, .number = number});
}

void ugpio_free(ugpio_t* pin) {
  delete pin;
}

int ugpio_full_open(ugpio_t* pin) {
  return pin->open_value();
}

void ugpio_close(ugpio_t* pin) {
  if (pin != nullptr) {
    pin->close_value();
  }
}

int ugpio_fd(const ugpio_t* pin) {
  return pin != nullptr ? pin->fd() : -1;
}

int ugpio_get_value(ugpio_t* pin) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  return pin->value();
}

int ugpio_set_value(ugpio_t* pin, int value) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  return pin->set_value(pin_level(value));
}

int ugpio_get_direction(ugpio_t* pin) {
  return pin->direction();
}

int ugpio_direction_output(ugpio_t* pin, int value) {
  return pin->make_output(pin_level(value));
}

int ugpio_set_activelow(ugpio_t* pin, int active_low) {
  return pin->set_polarity(active_low != 0 ? PinPolarity::ActiveLow : PinPolarity::ActiveHigh);
}

GIOCondition ugpio_edge_condition(const ugpio_t* pin, GIOCondition of_value_file) {
  return pin->edge_condition(of_value_file);
}

int ugpio_take_edges(ugpio_t* pin) {
  return pin != nullptr ? pin->take_edges() : 0;
}
