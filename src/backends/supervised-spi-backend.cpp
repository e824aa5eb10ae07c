#include "backends/supervised-spi-backend.h"

#include "backends/backend-data.h"
#include "backends/spi-utils.h"
#include "backends/supervised-pins.h"
#include "platform/callbacks.h"
#include "platform/handles.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"
#include "platform/numbers.h"
#include "port/port-place.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <tuple>
#include <utility>

namespace {

struct SpiPortData {
  OptionalText device;
  guint32 speed_hz = 0;
  guint address = 0;
  UniqueFd fd;
  SupervisedPins pins;
  SourceId poll_timer;

  void take(const char* element, const char* key, const char* value);
};

constexpr guint poll_interval_ms = 250;
constexpr guint8 bits_per_word = 16;

// Shared by all ports of this kind, by port number.
std::array<SupervisedState, 6> last_reported;

SupervisedState& last_reported_of(const IoPort* port) {
  return last_reported[static_cast<gsize>(port->number)];
}

// The pin starts by its flags alone and is not written again.
bool spi_init_pin(GpioPin* pin, PinUse use) {
  g_info("%sInit pin: %s", log_prefix, c_str_or_null(pin->name));
  return libugpio_open_gpio_pin(pin, use);
}

constexpr PinSetup pin_setup{
    .function = "spi_setup_gpio",
    .open_pin = spi_init_pin,
    .open_failure_counts = false,
    .control_failure_counts = false,
};

bool configure_device(SpiPortData* data) {
  const char* const path = data->device ? data->device->c_str() : "";
  data->fd.reset(open(path, O_RDWR | O_CLOEXEC));
  if (!data->fd) {
    remark_missing_kernel_part(spi_kernel_parts);
    g_warning("%sFailed to open SPI device.", log_prefix);
    return false;
  }
  if (ioctl(data->fd.get(), SPI_IOC_WR_BITS_PER_WORD, &bits_per_word) < 0) {
    g_warning("%sFailed to set bits per word.", log_prefix);
    return false;
  }
  if (data->speed_hz != 0 && ioctl(data->fd.get(), SPI_IOC_WR_MAX_SPEED_HZ, &data->speed_hz) < 0) {
    g_warning("%sFailed to set max speed.", log_prefix);
    return false;
  }
  return true;
}

bool open_device(SpiPortData* data) {
  if (configure_device(data)) {
    return true;
  }
  g_warning("%sFailed to open spi device.", log_prefix);
  return false;
}

bool number_in_range(const IoPort* port) {
  if (port->number >= 0 && std::cmp_less(port->number, last_reported.size())) {
    return true;
  }
  g_warning("%sPort %d cannot be an spi port: only numbers 0 to %zu can be supervised by it",
            log_prefix, port->number, last_reported.size() - 1);
  return false;
}

void release(SpiPortData* data) {
  data->poll_timer.reset();
  data->fd.reset();
  supervised_close_pins(data->pins);
}

bool spi_setup(IoPort* port, Level start) {
  auto* data = backend_data_ensure<SpiPortData>(port);
  if (number_in_range(port) && supervised_setup_pins(port, data->pins, start, pin_setup)
      && (port->type == PORT_OUTPUT || open_device(data))) {
    return true;
  }
  release(data);
  return false;
}

std::optional<SupervisedReadout> spi_readout(IoPort* port, GError** error) {
  auto* data = backend_data_ensure<SpiPortData>(port);
  SpiWord word{};
  if (!spi_exchange(data->fd.get(), static_cast<guint8>(data->address), &word)) {
    const char* const reason = g_strerror(errno);
    g_warning("%sError: %s", log_prefix, reason);
    // Not reopened: a converter that failed once is not trusted again before the next set-up.
    data->fd.reset();
    g_set_error_literal(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC, reason);
    return std::nullopt;
  }
  return supervised_readout_of(port, spi_level(word), error);
}

gboolean spi_poll(IoPort* port) {
  const PortPlace place(port);
  SupervisedState& last = last_reported_of(port);
  g_autoptr(GError) error = nullptr;
  const auto readout = io_port_get_supervised_readout(port, &error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  } else if (readout->state != last) {
    io_port_trigger(port, ReportedState(readout->state));
    last = readout->state;
  }
  return G_SOURCE_CONTINUE;
}

bool spi_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<SpiPortData>(port);
  if (!io_port_supervised_input(port)) {
    std::ignore = data->pins.logic_watch.start(port, supervised_level_pin(port, data->pins));
    data->poll_timer.reset();
    return true;
  }
  data->pins.logic_watch.stop();
  if (!data->poll_timer) {
    last_reported_of(port) = SUPERVISED_UNDEFINED;
    data->poll_timer.reset(g_timeout_add(poll_interval_ms, callback<spi_poll>, port));
  }
  return true;
}

bool spi_set_supervised(IoPort* port) {
  if (!io_port_input(port) && !io_port_set_direction(port, Direction::Input)) {
    return false;
  }
  spi_set_watch(port);
  std::ignore = supervised_set_control_pins(port, backend_data<SpiPortData>(port)->pins, pin_setup);
  return true;
}

Level spi_get_state(IoPort* port) {
  const auto* data = backend_data<SpiPortData>(port);
  return data != nullptr ? supervised_pin_level(port, data->pins) : Level::Low;
}

void spi_set_direction(IoPort* port, Direction direction) {
  auto* data = backend_data_ensure<SpiPortData>(port);
  data->poll_timer.reset();
  supervised_turn_pins(port, data->pins, direction, pin_setup);
}

void SpiPortData::take(const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "address")) {
    sscanf(value, "%x", &address);
  } else if (g_str_equal(element, "device") && g_str_equal(key, "path")) {
    device = value;
  } else if (g_str_equal(element, "speed") && g_str_equal(key, "value")) {
    speed_hz = number_of<guint32>(value, 0);
  }
}

constexpr PortFunctions functions = supervised_table<SpiPortData>({
    .setup = spi_setup,
    .set_supervised = spi_set_supervised,
    .get_supervised_readout = spi_readout,
    .get_state = spi_get_state,
    .set_watch = spi_set_watch,
    .set_direction = spi_set_direction,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* spi_setup_functions(IoPort* port) {
  return backend_attach<SpiPortData>(port, functions);
}
