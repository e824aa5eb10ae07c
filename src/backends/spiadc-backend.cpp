#include "backends/spiadc-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"
#include "backends/input-poll.h"
#include "backends/spi-utils.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace {

// Numbers are decimal, 0x-hexadecimal or octal.
struct Band {
  gint active_min = 0;
  gint active_max = 0;
  gint hysteresis = 0;
};

constexpr std::array band_keys{
    DescriptionKey<Band>{"active_min", take_number<&Band::active_min, 0>},
    DescriptionKey<Band>{"active_max", take_number<&Band::active_max, 0>},
    DescriptionKey<Band>{"hysteresis", take_number<&Band::hysteresis, 0>},
};
static_assert(same_keys(spiadc_band_attributes, band_keys));

// A band widens while the state is on its side and narrows otherwise, so that the level must cross
// an edge by more than the hysteresis. 64 bits: the description may hold any number.
bool in_band(const Band& band, gint64 level, gint64 margin) {
  return band.active_min - margin <= level && level <= band.active_max + margin;
}

class SpiadcPort final : public InputPoll {
public:
  using InputPoll::InputPoll;
  ~SpiadcPort() { close_device(); }
  SpiadcPort(const SpiadcPort&) = delete;
  SpiadcPort& operator=(const SpiadcPort&) = delete;

  bool setup(Level start);
  [[nodiscard]] Level get_state() const { return level_of(active_); }
  void parse_data(const char* element, const char* key, const char* value);

private:
  bool refresh() override;
  [[nodiscard]] bool level_active(gint level) const;
  [[nodiscard]] gint read_level() const;
  void parse_band(const char* key, const char* value);
  void close_device() {
    if (fd_ != 0) {
      close(fd_);
    }
    fd_ = 0;
  }

  OptionalText device_;
  /// Of what is described, the low byte.
  guint8 address_ = 0;
  /// 0 while not open; a descriptor of that number is left to whoever else may mean it.
  int fd_ = 0;
  /// Newest first.
  std::list<Band> bands_;
  bool inverted_ = false;
  bool active_ = false;
};

bool SpiadcPort::level_active(gint level) const {
  const bool widened = active_ != inverted_;
  const bool inside = std::ranges::any_of(bands_, [=](const Band& band) {
    return in_band(band, level, widened ? band.hysteresis : -gint64{band.hysteresis});
  });
  return inside != inverted_;
}

gint SpiadcPort::read_level() const {
  SpiWord word{};
  if (!spi_exchange(fd_, address_, &word)) {
    g_warning("%sSPI_IOC_MESSAGE failed! : %s", log_prefix, g_strerror(errno));
  }
  return spi_level(word);
}

bool SpiadcPort::refresh() {
  const bool before = active_;
  active_ = level_active(read_level());
  return active_ != before;
}

// The fatal message names the step as operators know it.
void spiadc_port_setup(const IoPort* port) {
  g_assert(port->type == PORT_INPUT);
}

bool SpiadcPort::setup(Level /*start*/) {
  spiadc_port_setup(&port_);

  close_device();
  const char* const device = device_ ? device_->c_str() : "";
  const int fd = open(device, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    remark_missing_kernel_part(spi_kernel_parts);
    g_warning("%sFailed to open %s: %s", log_prefix, device, g_strerror(errno));
    return false;
  }
  fd_ = fd;
  return true;
}

void SpiadcPort::parse_band(const char* key, const char* value) {
  if (bands_.empty()) {
    g_warning("%sSpi ADC backend configured incorrectly", log_prefix);
    return;
  }
  take_described(band_keys, bands_.front(), key, value);
}

void SpiadcPort::parse_data(const char* element, const char* key, const char* value) {
  static constexpr std::array device_keys{
      DescriptionKey<SpiadcPort>{"device", take_text<&SpiadcPort::device_>},
      DescriptionKey<SpiadcPort>{"timeout", take_number<&SpiadcPort::interval_ms_, 0>},
      DescriptionKey<SpiadcPort>{"address", take_number<&SpiadcPort::address_, 0>},
      DescriptionKey<SpiadcPort>{"inverted", take_switch<&SpiadcPort::inverted_>},
  };
  static_assert(same_keys(spiadc_device_attributes, device_keys));
  if (g_str_equal(element, "range")) {
    // One per attribute; the bands before the newest then stay empty at level 0.
    bands_.emplace_front();
  } else if (g_str_equal(element, "input")) {
    parse_band(key, value);
  } else if (g_str_equal(element, "device")) {
    take_described(device_keys, *this, key, value);
  } else {
    g_warning("%sCould not parse backend data!\n", log_prefix);
  }
}

} // namespace

const PortFunctions* spiadc_setup_functions(IoPort* port) {
  return hardware_attach<SpiadcPort>(port);
}
