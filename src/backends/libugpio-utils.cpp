#include "backends/libugpio-utils.h"

#include "platform/callbacks.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "platform/ugpio-extras.h"
#include "port/port-observer.h"
#include "port/port-place.h"

#include <algorithm>
#include <cerrno>

namespace {

// The values of libugpio's flags word that each use of a pin asks for.
constexpr guint input_flags = UGPIOF_DIR_IN | UGPIOF_TRIG_FALL | UGPIOF_TRIG_RISE
                              | UGPIOF_DIR_CHANGEABLE | UGPIOF_EDGE_CHANGEABLE;
constexpr guint output_low_flags = UGPIOF_DIR_CHANGEABLE;
constexpr guint output_high_flags = UGPIOF_DIR_CHANGEABLE | UGPIOF_INIT_HIGH;
static_assert(input_flags == 333 && output_low_flags == 64 && output_high_flags == 66);

constexpr gulong settle_time_us = 500;

const char* name_of(const GpioPin* pin) {
  return c_str_or_null(pin->name);
}

// The line starts at the level that reads as `value` once the active-low setting is made.
guint request_flags(const GpioPin* pin, PinUse use) {
  if (use == PinUse::Input) {
    return input_flags;
  }
  const bool high = (use == PinUse::HighOutput) != (pin->activelow == PinActiveLow::Low);
  return high ? output_high_flags : output_low_flags;
}

ugpio_t* request(const GpioPin* pin, guint flags) {
  return pin->name ? ugpio_request_one_named(name_of(pin), flags)
                   : ugpio_request_one(static_cast<guint>(pin->number), flags, "pin");
}

// What the kernel answers once a pin's chip has been taken away.
bool means_gone(int reason) {
  constexpr std::array reasons{ENODEV, ENOENT, ENXIO, EBADF};
  return std::ranges::find(reasons, reason) != reasons.end();
}

// An operation table has no way to tell a reading that failed from a level, but errno has.
std::optional<bool> read_state(IoPort* port) {
  errno = 0;
  const bool state = io_port_get_state(port);
  return errno == 0 ? std::optional(state) : std::nullopt;
}

// What the line did before the reading is in it; edges from then on are another reading's.
std::optional<bool> read_state_after_edges(IoPort* port, ugpio_t* pin) {
  return ugpio_take_edges(pin) != -1 ? read_state(port) : std::nullopt;
}

} // namespace

GpioPin::~GpioPin() {
  libugpio_close_gpio_pin(this);
}

void libugpio_parse_data_pin(GpioPin* pin, const char* key, const char* value) {
  if (g_str_equal(key, "pin")) {
    pin->number = number_of<gint32>(value);
  } else if (g_str_equal(key, "alias")) {
    pin->name = value;
  } else if (g_str_equal(key, "inverted")) {
    pin->activelow = g_str_equal(value, "true") ? PinActiveLow::Low : PinActiveLow::High;
  }
}

void libugpio_parse_data_pin(GpioPinPtr& pin, const char* key, const char* value) {
  if (pin == nullptr) {
    pin = std::make_unique<GpioPin>();
  }
  libugpio_parse_data_pin(pin.get(), key, value);
}

bool libugpio_apply_activelow(GpioPin* pin) {
  if (pin->activelow == PinActiveLow::Unset) {
    return true;
  }
  const bool low = pin->activelow == PinActiveLow::Low;
  if (ugpio_set_activelow(pin->handle, low) != 0) {
    g_warning("%sFailed set active %s!", log_prefix, low ? "low" : "high");
    return false;
  }
  return true;
}

bool libugpio_open_gpio_pin(GpioPin* pin, PinUse use) {
  libugpio_close_gpio_pin(pin);
  pin->handle = request(pin, request_flags(pin, use));
  if (pin->handle == nullptr) {
    remark_missing_kernel_part({&ugpio_kernel_part(), 1});
    g_warning("%sFailed to allocate pin %d/%s", log_prefix, pin->number, name_of(pin));
    return false;
  }
  if (ugpio_full_open(pin->handle) == -1) {
    g_warning("%sFailed to open pin fd!", log_prefix);
    return false;
  }
  return libugpio_apply_activelow(pin);
}

bool libugpio_port_init_gpio_pin(GpioPin* pin, PinUse use) {
  if (!libugpio_open_gpio_pin(pin, use)) {
    return false;
  }
  if (use != PinUse::Input && ugpio_set_value(pin->handle, use == PinUse::HighOutput) == -1) {
    g_warning("%sFailed to set state on port!\n", log_prefix);
  }
  return true;
}

bool libugpio_set_gpio_pin(GpioPin* pin, Level level) {
  g_assert(pin);
  errno = 0;
  if (ugpio_set_value(pin->handle, level == Level::High) == -1) {
    g_warning("%sFailed to set gpio pin %s: %s", log_prefix, name_of(pin), g_strerror(errno));
    return false;
  }
  return true;
}

Level libugpio_get_gpio_pin(const GpioPin* pin) {
  switch (ugpio_get_value(pin->handle)) {
  case 0:
    return Level::Low;
  case 1:
    return Level::High;
  default:
    return Level::Unknown;
  }
}

void libugpio_close_gpio_pin(GpioPin* pin) {
  if (pin != nullptr && pin->handle != nullptr) {
    ugpio_close(pin->handle);
    ugpio_free(std::exchange(pin->handle, nullptr));
  }
}

bool libugpio_handle_trig(IoPort* port, ugpio_t* pin) {
  g_usleep(settle_time_us);
  auto state = read_state_after_edges(port, pin);
  while (state) {
    io_port_trigger(port, ReportedState(*state));
    const auto now = read_state_after_edges(port, pin);
    if (now == state) {
      return true;
    }
    state = now;
  }
  return false;
}

bool LogicWatch::start(IoPort* port, const GpioPin* pin, GIOCondition of_value_file) {
  if (*this) {
    return true;
  }
  const int fd = pin != nullptr ? ugpio_fd(pin->handle) : -1;
  if (fd < 0) {
    return false;
  }
  port_ = port;
  pin_ = pin;
  condition_ = ugpio_edge_condition(pin->handle, of_value_file);
  channel_ = g_io_channel_unix_new(fd);
  look();
  return true;
}

// The channel is not shut down: the descriptor is the pin's.
void LogicWatch::stop() {
  source_.reset();
  rest_.reset();
  trouble_ = Trouble();
  g_clear_pointer(&channel_, g_io_channel_unref);
}

void LogicWatch::look() {
  source_.reset(g_io_add_watch(channel_, condition_, callback<&LogicWatch::on_edge>, this));
}

// The descriptor of a pin that is gone would report an error for ever.
void LogicWatch::give_up(int reason) {
  g_warning("%sPin of port %d cannot be read any more, not watching it: %s", log_prefix,
            port_->number, g_strerror(reason));
  port_->hardware_gone = true;
  port_observer.hardware_gone();
  stop();
}

void LogicWatch::rest(int reason) {
  if (trouble_.tell()) {
    g_warning("%sPin of port %d cannot be read, trying again every %u ms: %s", log_prefix,
              port_->number, shortest_rest_ms, g_strerror(reason));
  }
  rest_.reset(g_timeout_add(shortest_rest_ms, callback<&LogicWatch::on_rested>, this));
}

// Whether to go on looking for edges: not while the pin rests, nor when it is gone.
bool LogicWatch::serve() {
  const PortPlace place(port_);
  errno = 0;
  if (ugpio_take_edges(pin_->handle) != -1 && ugpio_get_value(pin_->handle) != -1
      && libugpio_handle_trig(port_, pin_->handle)) {
    if (trouble_.end()) {
      g_message("%sPin of port %d can be read again", log_prefix, port_->number);
    }
    return true;
  }
  const int reason = errno;
  if (means_gone(reason)) {
    give_up(reason);
  } else {
    rest(reason);
  }
  return false;
}

gboolean LogicWatch::on_edge() {
  if (serve()) {
    return G_SOURCE_CONTINUE;
  }
  source_.forget();
  return G_SOURCE_REMOVE;
}

// An edge since the reading still shows, so none is missed.
gboolean LogicWatch::on_rested() {
  rest_.forget();
  if (serve()) {
    look();
  }
  return G_SOURCE_REMOVE;
}
