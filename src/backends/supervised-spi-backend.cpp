#include "backends/supervised-spi-backend.h"

#include "backends/hardware.h"
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
#include <tuple>
#include <utility>

namespace {

constexpr guint poll_interval_ms = 250;
constexpr guint8 bits_per_word = 16;

// Shared by all ports of this kind, by port number.
std::array<SupervisedState, 6> last_reported;

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

class SpiPort : public SupervisedPort {
public:
  explicit SpiPort(IoPort& port) : port_(port), line_(port, pin_setup) {}

  bool setup(Level start);
  bool set_supervised();
  std::optional<SupervisedReadout> get_supervised_readout(GError** error);
  [[nodiscard]] Level get_state() const { return line_.level(); }
  void set_state(Level level) { line_.drive(level); }
  bool set_watch();
  void set_direction(Direction direction);
  void parse_data(const char* element, const char* key, const char* value);

private:
  [[nodiscard]] bool number_in_range() const;
  [[nodiscard]] bool configure_device();
  [[nodiscard]] bool open_device();
  gboolean poll();
  [[nodiscard]] SupervisedState& last() const {
    return last_reported[static_cast<gsize>(port_.number)];
  }

  IoPort& port_;
  OptionalText device_;
  guint32 speed_hz_ = 0;
  guint address_ = 0;
  UniqueFd fd_;
  SupervisedLine line_;
  SourceId poll_timer_;
};

bool SpiPort::configure_device() {
  const char* const path = device_ ? device_->c_str() : "";
  fd_.reset(open(path, O_RDWR | O_CLOEXEC));
  if (!fd_) {
    remark_missing_kernel_part(spi_kernel_parts);
    g_warning("%sFailed to open SPI device.", log_prefix);
    return false;
  }
  if (ioctl(fd_.get(), SPI_IOC_WR_BITS_PER_WORD, &bits_per_word) < 0) {
    g_warning("%sFailed to set bits per word.", log_prefix);
    return false;
  }
  if (speed_hz_ != 0 && ioctl(fd_.get(), SPI_IOC_WR_MAX_SPEED_HZ, &speed_hz_) < 0) {
    g_warning("%sFailed to set max speed.", log_prefix);
    return false;
  }
  return true;
}

bool SpiPort::open_device() {
  if (configure_device()) {
    return true;
  }
  g_warning("%sFailed to open spi device.", log_prefix);
  return false;
}

bool SpiPort::number_in_range() const {
  if (port_.number >= 0 && std::cmp_less(port_.number, last_reported.size())) {
    return true;
  }
  g_warning("%sPort %d cannot be an spi port: only numbers 0 to %zu can be supervised by it",
            log_prefix, port_.number, last_reported.size() - 1);
  return false;
}

bool SpiPort::setup(Level start) {
  if (number_in_range() && line_.setup(start) && (port_.type == PORT_OUTPUT || open_device())) {
    return true;
  }
  poll_timer_.reset();
  fd_.reset();
  line_.close();
  return false;
}

std::optional<SupervisedReadout> SpiPort::get_supervised_readout(GError** error) {
  SpiWord word{};
  if (!spi_exchange(fd_.get(), static_cast<guint8>(address_), &word)) {
    const char* const reason = g_strerror(errno);
    g_warning("%sError: %s", log_prefix, reason);
    // Not reopened: a converter that failed once is not trusted again before the next set-up.
    fd_.reset();
    g_set_error_literal(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC, reason);
    return std::nullopt;
  }
  return supervised_readout_of(&port_, spi_level(word), error);
}

gboolean SpiPort::poll() {
  const PortPlace place(&port_);
  g_autoptr(GError) error = nullptr;
  const auto readout = io_port_get_supervised_readout(&port_, &error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  } else if (readout->state != last()) {
    io_port_trigger(&port_, ReportedState(readout->state));
    last() = readout->state;
  }
  return G_SOURCE_CONTINUE;
}

bool SpiPort::set_watch() {
  if (!io_port_supervised_input(&port_)) {
    line_.watch();
    poll_timer_.reset();
    return true;
  }
  line_.unwatch();
  if (!poll_timer_) {
    last() = SUPERVISED_UNDEFINED;
    poll_timer_.reset(g_timeout_add(poll_interval_ms, callback<&SpiPort::poll>, this));
  }
  return true;
}

bool SpiPort::set_supervised() {
  if (!io_port_input(&port_) && !io_port_set_direction(&port_, Direction::Input)) {
    return false;
  }
  set_watch();
  std::ignore = line_.set_control_pins();
  return true;
}

void SpiPort::set_direction(Direction direction) {
  poll_timer_.reset();
  line_.turn(direction);
}

void SpiPort::parse_data(const char* element, const char* key, const char* value) {
  static PendingRange pending; // One for all ports.
  if (line_.parse(pending, element, key, value)) {
    return;
  }
  if (g_str_equal(element, "address")) {
    sscanf(value, "%x", &address_);
  } else if (g_str_equal(element, "device") && g_str_equal(key, "path")) {
    device_ = value;
  } else if (g_str_equal(element, "speed") && g_str_equal(key, "value")) {
    speed_hz_ = number_of<guint32>(value, 0);
  }
}

} // namespace

const PortFunctions* spi_setup_functions(IoPort* port) {
  return hardware_attach<SpiPort>(port);
}
