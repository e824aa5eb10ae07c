#include "backends/spiadc-backend.h"

#include "backends/backend-data.h"
#include "backends/spi-utils.h"
#include "platform/handles.h"
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
  gint address = 0;
  /// 0 while not open; a descriptor of that number is left to whoever else may mean it.
  int fd = 0;
  /// Newest first.
  std::list<Band> bands;
  guint timeout_ms = 0;
  bool inverted = false;
  bool active = false;
  SourceId poll_source;

  SpiadcPortData() = default;
  ~SpiadcPortData() { close_device(); }
  SpiadcPortData(const SpiadcPortData&) = delete;
  SpiadcPortData& operator=(const SpiadcPortData&) = delete;

  void close_device() {
    if (fd != 0) {
      close(fd);
    }
    fd = 0;
  }
};

// A band widens while the state is on its side and narrows otherwise, so that the level must cross
// an edge by more than the hysteresis. 64 bits: the description may hold any number.
bool in_band(const Band& band, gint64 level, bool widened) {
  const gint64 margin = widened ? band.hysteresis : -gint64{band.hysteresis};
  return band.active_min - margin <= level && level <= band.active_max + margin;
}

bool level_active(const SpiadcPortData* data, gint level) {
  const bool widened = data->active != data->inverted;
  const bool inside = std::ranges::any_of(
      data->bands, [=](const Band& band) { return in_band(band, level, widened); });
  return inside != data->inverted;
}

gint read_level(const SpiadcPortData* data) {
  SpiWord word{};
  if (!spi_exchange(data->fd, static_cast<guint8>(data->address), &word)) {
    g_warning("%sSPI_IOC_MESSAGE failed! : %s", log_prefix, g_strerror(errno));
  }
  return spi_level(word);
}

gboolean spiadc_poll(gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<SpiadcPortData>(port);
  const bool before = data->active;
  data->active = level_active(data, read_level(data));
  const bool state = io_port_get_state(port);
  if (data->active != before) {
    io_port_trigger(port, state ? 1 : 0);
  }
  return G_SOURCE_CONTINUE;
}

gboolean spiadc_port_setup(IoPort* port, gboolean /*activelow_output*/) {
  auto* data = backend_data<SpiadcPortData>(port);
  g_assert(data != NULL);
  g_assert(port->type == PORT_INPUT);

  data->close_device();
  const char* const device = data->device ? data->device->c_str() : "";
  const int fd = open(device, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    g_warning("%sFailed to open %s: %s", log_prefix, device, g_strerror(errno));
    return FALSE;
  }
  data->fd = fd;
  return TRUE;
}

guint spiadc_port_get_state(IoPort* port) {
  const auto* data = backend_data<SpiadcPortData>(port);
  return data != nullptr && data->active ? 1 : 0;
}

void spiadc_port_set_state(IoPort* /*port*/, gint /*state*/) {}

gboolean spiadc_port_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<SpiadcPortData>(port);
  if (!data->poll_source) {
    data->poll_source.reset(g_timeout_add(data->timeout_ms, spiadc_poll, port));
  }
  return TRUE;
}

void spiadc_port_set_direction(IoPort* /*port*/, gboolean /*input*/) {}

// Decimal, 0x-hexadecimal or octal.
gint number(const char* value) {
  return static_cast<gint>(g_ascii_strtoll(value, nullptr, 0));
}

void parse_device(SpiadcPortData* data, const char* key, const char* value) {
  if (g_str_equal(key, "device")) {
    data->device = value;
  } else if (g_str_equal(key, "timeout")) {
    data->timeout_ms = static_cast<guint>(number(value));
  } else if (g_str_equal(key, "address")) {
    data->address = number(value);
  } else if (g_str_equal(key, "inverted")) {
    data->inverted = g_str_equal(value, "true");
  }
}

void parse_band(SpiadcPortData* data, const char* key, const char* value) {
  if (data->bands.empty()) {
    g_warning("%sSpi ADC backend configured incorrectly", log_prefix);
    return;
  }
  Band& band = data->bands.front();
  if (g_str_equal(key, "active_min")) {
    band.active_min = number(value);
  } else if (g_str_equal(key, "active_max")) {
    band.active_max = number(value);
  } else if (g_str_equal(key, "hysteresis")) {
    band.hysteresis = number(value);
  }
}

void spiadc_port_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  auto* data = backend_data_ensure<SpiadcPortData>(port);
  if (g_str_equal(element, "range")) {
    // One per attribute; the bands before the newest then stay empty at level 0.
    data->bands.emplace_front();
  } else if (g_str_equal(element, "input")) {
    parse_band(data, key, value);
  } else if (g_str_equal(element, "device")) {
    parse_device(data, key, value);
  } else {
    g_warning("%sCould not parse backend data!\n", log_prefix);
  }
}

void spiadc_port_free(IoPort* port) {
  backend_data_free<SpiadcPortData>(port);
}

constexpr PortFunctions functions{
    .setup = spiadc_port_setup,
    .get_state = spiadc_port_get_state,
    .set_state = spiadc_port_set_state,
    .set_watch = spiadc_port_set_watch,
    .set_direction = spiadc_port_set_direction,
    .parse_data = spiadc_port_parse_data,
    .free = spiadc_port_free,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* spiadc_setup_functions(IoPort* port) {
  backend_data_ensure<SpiadcPortData>(port);
  return &functions;
}
