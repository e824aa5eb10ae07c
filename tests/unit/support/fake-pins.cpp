// A pipe whose reading end is closed raises exactly an error condition on its writing end.
#include "support/fake-pins.h"

#include "platform/ugpio-extras.h"

#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

struct ugpio {
  std::string name;
};

FakePins fake_pins;

namespace {

std::map<std::string, std::array<int, 2>> pipes;

// Writes the call down; false when it is to fail.
bool note(const std::string& what, const std::string& rest) {
  const std::string call = what + ' ' + rest;
  fake_pins.calls.push_back(call);
  const bool fails = std::ranges::any_of(fake_pins.faults, [&](const std::string& fault) {
    return (call + ' ').starts_with(fault + ' ');
  });
  errno = fails ? EIO : errno;
  return !fails;
}

std::array<int, 2>& pipe_of(const std::string& pin) {
  auto& ends = pipes[pin];
  if (ends[1] == 0) {
    g_assert_no_errno(pipe(ends.data()));
  }
  return ends;
}

ugpio_t* request(const char* what, const std::string& pin, const std::string& rest) {
  return note(what, pin + rest) ? new ugpio{pin} : nullptr;
}

} // namespace

void FakePins::reset() {
  for (const auto& [pin, ends] : pipes) {
    for (const int end : ends) {
      if (end > 0) {
        close(end);
      }
    }
  }
  pipes.clear();
  *this = {};
}

void FakePins::edge(const std::string& pin) {
  auto& ends = pipe_of(pin);
  if (ends[0] > 0) {
    close(ends[0]);
    ends[0] = -1;
  }
}

ugpio_t* ugpio_request(unsigned int number, const char* label) {
  return request("request", std::to_string(number), std::string(" ") + label);
}

ugpio_t* ugpio_request_one(unsigned int number, unsigned int flags, const char* /*label*/) {
  return request("request_one", std::to_string(number), ' ' + std::to_string(flags));
}

const KernelPart& ugpio_kernel_part() {
  static constexpr KernelPart always_there{"/", "CONFIG_GPIOLIB"};
  return always_there;
}

ugpio_t* ugpio_request_named(const char* name) {
  return request("request_named", name, "");
}

ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags) {
  return request("request_one_named", name, ' ' + std::to_string(flags));
}

void ugpio_free(ugpio_t* pin) {
  if (pin != nullptr) {
    note("free", pin->name);
  }
  delete pin;
}

int ugpio_full_open(ugpio_t* pin) {
  return note("full_open", pin->name) ? pipe_of(pin->name)[1] : -1;
}

void ugpio_close(ugpio_t* pin) {
  if (pin != nullptr) {
    note("close", pin->name);
  }
}

int ugpio_fd(const ugpio_t* pin) {
  return pin != nullptr ? pipe_of(pin->name)[1] : -1;
}

int ugpio_get_value(ugpio_t* pin) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  int level = fake_pins.levels[pin->name];
  if (auto& readings = fake_pins.readings[pin->name]; !readings.empty()) {
    level = readings.front();
    readings.pop_front();
  }
  errno = level < 0 ? -level : errno;
  return level < 0 ? -1 : level;
}

int ugpio_set_value(ugpio_t* pin, int value) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  return note("set_value", pin->name + ' ' + std::to_string(value)) ? 0 : -1;
}

int ugpio_get_direction(ugpio_t* /*pin*/) {
  return 0;
}

int ugpio_direction_output(ugpio_t* pin, int value) {
  return note("direction_output", pin->name + ' ' + std::to_string(value)) ? 0 : -1;
}

int ugpio_set_activelow(ugpio_t* pin, int active_low) {
  return note("set_activelow", pin->name + ' ' + std::to_string(active_low)) ? 0 : -1;
}

GIOCondition ugpio_edge_condition(const ugpio_t* /*pin*/, GIOCondition of_value_file) {
  return of_value_file;
}

int ugpio_take_edges(ugpio_t* /*pin*/) {
  return 0;
}
