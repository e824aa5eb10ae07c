#include "backends/spiadc-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "backends/empty-slots.h"
#include "backends/input-poll.h"
#include "backends/spi-utils.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace {

struct Band {
  gint active_min = 0;
  gint active_max = 0;
  gint hysteresis = 0;
};

struct SpiadcPortData {
  OptionalText device;
  /// Of what is described, the low byte.
  guint8 address = 0;
  /// 0 while not open; a descriptor of that number is left to whoever else may mean it.
  int fd = 0;
  /// Newest first.
  std::list<Band> bands;
  bool inverted = false;
  bool active = false;
  InputPoll poll;

  SpiadcPortData() = default;
  ~SpiadcPortData() { close_device(); }
  SpiadcPortData(const SpiadcPortData&) = delete;
  SpiadcPortData& operator=(const SpiadcPortData&) = delete;

  bool refresh();
  bool look() { return refresh(); }
  void close_device() {
    if (fd != 0) {
      close(fd);
    }
    fd = 0;
  }
};

// A band widens while the state is on its side and narrows otherwise, so that the level must cross
// an edge by more than the hysteresis. 64 bits: the description may hold any number.
bool in_band(const Band& band, gint64 level, gint64 margin) {
  return band.active_min - margin <= level && level <= band.active_max + margin;
}

bool level_active(const SpiadcPortData* data, gint level) {
  const bool widened = data->active != data->inverted;
  const bool inside = std::ranges::any_of(data->bands, [=](const Band& band) {
    return in_band(band, level, widened ? band.hysteresis : -gint64{band.hysteresis});
  });
  return inside != data->inverted;
}

gint read_level(const SpiadcPortData* data) {
  SpiWord word{};
  if (!spi_exchange(data->fd, data->address, &word)) {
    g_warning("%sSPI_IOC_MESSAGE failed! : %s", log_prefix, g_strerror(errno));
  }
  return spi_level(word);
}

bool SpiadcPortData::refresh() {
  const bool before = active;
  active = level_active(this, read_level(this));
  return active != before;
}

bool spiadc_port_setup(IoPort* port, Level /*start*/) {
  auto* data = backend_data<SpiadcPortData>(port);
  g_assert(data != NULL);
  g_assert(port->type == PORT_INPUT);

  data->close_device();
  const char* const device = data->device ? data->device->c_str() : "";
  const int fd = open(device, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    remark_missing_kernel_part(spi_kernel_parts);
    g_warning("%sFailed to open %s: %s", log_prefix, device, g_strerror(errno));
    return false;
  }
  data->fd = fd;
  return true;
}

Level spiadc_port_get_state(IoPort* port) {
  const auto* data = backend_data<SpiadcPortData>(port);
  return level_of(data != nullptr && data->active);
}

// Numbers are decimal, 0x-hexadecimal or octal.
constexpr std::array device_keys{
    DescriptionKey<SpiadcPortData>{"device", take_text<&SpiadcPortData::device>},
    DescriptionKey<SpiadcPortData>{"timeout", take_interval<SpiadcPortData>},
    DescriptionKey<SpiadcPortData>{"address", take_number<&SpiadcPortData::address, 0>},
    DescriptionKey<SpiadcPortData>{"inverted", take_switch<&SpiadcPortData::inverted>},
};
static_assert(same_keys(spiadc_device_attributes, device_keys));

constexpr std::array band_keys{
    DescriptionKey<Band>{"active_min", take_number<&Band::active_min, 0>},
    DescriptionKey<Band>{"active_max", take_number<&Band::active_max, 0>},
    DescriptionKey<Band>{"hysteresis", take_number<&Band::hysteresis, 0>},
};
static_assert(same_keys(spiadc_band_attributes, band_keys));

void parse_band(SpiadcPortData* data, const char* key, const char* value) {
  if (data->bands.empty()) {
    g_warning("%sSpi ADC backend configured incorrectly", log_prefix);
    return;
  }
  take_described(band_keys, data->bands.front(), key, value);
}

void spiadc_port_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  auto* data = backend_data_ensure<SpiadcPortData>(port);
  if (g_str_equal(element, "range")) {
    // One per attribute; the bands before the newest then stay empty at level 0.
    data->bands.emplace_front();
  } else if (g_str_equal(element, "input")) {
    parse_band(data, key, value);
  } else if (g_str_equal(element, "device")) {
    take_described(device_keys, *data, key, value);
  } else {
    g_warning("%sCould not parse backend data!\n", log_prefix);
  }
}

constexpr PortFunctions functions = input_poll_table<SpiadcPortData>({
    .setup = spiadc_port_setup,
    .get_state = spiadc_port_get_state,
    .set_state = ignore_state,
    .set_direction = ignore_direction,
    .parse_data = spiadc_port_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* spiadc_setup_functions(IoPort* port) {
  return backend_attach<SpiadcPortData>(port, functions);
}
