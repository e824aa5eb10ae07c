#include "backends/supervised-iio-interrupt-backend.h"

#include "backends/backend-data.h"
#include "backends/iio-event-device.h"
#include "backends/iio-utils.h"
#include "backends/supervised-pins.h"
#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr guint32 limit_unset = G_MAXUINT32;
constexpr guint default_limit_timeout_ms = 1000;
constexpr double us_per_s = 1000000.0;

struct IioIntPortData {
  /// No pins; the port is read through the converter only.
  bool adc_only = false;
  guint hysteresis = 0;
  std::string device_path;
  OptionalText driver;
  OptionalText chan_extend_name;
  /// Write-only, kept open: a threshold is moved on every change of the level's range.
  UniqueFd rising_value;
  UniqueFd falling_value;
  UniqueFd rising_enable;
  UniqueFd falling_enable;
  UniqueFd either_enable;
  guint64 channel = 0;
  OptionalText channel_name;
  int device_number = -1;
  guint32 lower_limit = limit_unset;
  guint32 upper_limit = limit_unset;
  guint limit_timeout_ms = default_limit_timeout_ms;
  SourceId limit_timer;
  gint bitshift = 0;
  OptionalText shared_samplefreq;
  OptionalText shared_thresh_either_period;
  gint64 integration_time_us = 0;
  bool one_threshold = false;
  bool use_cached_level = true;
  bool pullup_when_supervised = false;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level{0};
  guint last_reported = SUPERVISED_OPEN;
  SupervisedPins pins;
};

PendingRange pending_range;

PinSetup pin_setup(const IioIntPortData* data) {
  return {.function = "iio_int_setup_gpio",
          .open_pin = libugpio_port_init_gpio_pin,
          .open_failure_counts = true,
          .control_failure_counts = true,
          .sioctrl_optional = true,
          .ioctrl_always_on = data->pullup_when_supervised,
          .tells_calls = false};
}

bool measured(IoPort* port, const IioIntPortData* data) {
  return data->adc_only || io_port_supervised_input(port);
}

// Reading

// "in_<channel>[_<extension>]_<attribute>".
std::string attribute_name(const IioIntPortData* data, const char* attribute) {
  std::string name =
      "in_" + data->channel_name.value_or("voltage" + std::to_string(data->channel)) + '_';
  if (data->chan_extend_name) {
    name += *data->chan_extend_name + '_';
  }
  return name + attribute;
}

std::string channel_path(const IioIntPortData* data, const char* attribute) {
  return iio_device_folder(data->device_number) + attribute_name(data, attribute);
}

std::string event_path(const IioIntPortData* data, const char* attribute) {
  return iio_device_folder(data->device_number) + "events/" + attribute_name(data, attribute);
}

guint bitshift(const IioIntPortData* data) {
  return data->bitshift < 0 ? 0 : static_cast<guint>(data->bitshift);
}

bool read_level(IioIntPortData* data, GError** error) {
  const std::string path = channel_path(data, "raw");
  g_autofree char* text = nullptr;
  iio_read_sysfs(path.c_str(), &text);
  if (text == nullptr) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC,
                "Failed to read '%s'", path.c_str());
    return false;
  }
  const auto raw = static_cast<guint32>(strtol(text, nullptr, 0));
  data->cached_level = iio_shift_right(raw, bitshift(data));
  return true;
}

// The last range that holds the level, or nullptr.
const SupervisedRange* range_of_level(const GList* ranges, guint32 level) {
  const SupervisedRange* found = nullptr;
  for (const GList* item = ranges; item != nullptr; item = item->next) {
    const auto* range = static_cast<const SupervisedRange*>(item->data);
    if (range->lower <= level && level <= range->upper) {
      found = range;
    }
  }
  return found;
}

gboolean readout(IoPort* port, bool use_cache, guint* state, guint* level, GError** error) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  *state = SUPERVISED_UNDEFINED;
  if (!use_cache && !read_level(data, error)) {
    return FALSE;
  }
  *level = data->cached_level;
  if (port->ranges == nullptr) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED,
                "Failed to get ranges from port %s", c_str_or_null(port->name));
    return FALSE;
  }
  return supervised_lookup_state(port, *level, state, error);
}

gboolean iio_int_get_supervised_readout(IoPort* port, guint* state, guint* level, GError** error) {
  const auto* data = backend_data_ensure<IioIntPortData>(port);
  return readout(port, data->use_cached_level, state, level, error);
}

void report_if_changed(IoPort* port, IioIntPortData* data, guint state) {
  if (state != data->last_reported) {
    io_port_trigger(port, state);
    data->last_reported = state;
  }
}

// Arming

void write_number(const UniqueFd& fd, gint number) {
  if (!fd) {
    return;
  }
  const std::string text = std::to_string(number);
  if (pwrite(fd.get(), text.data(), text.size(), 0) < 0) {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(errno));
  }
}

void enable_events(const IioIntPortData* data, bool enable) {
  if (data->either_enable) {
    write_number(data->either_enable, enable ? 1 : 0);
  } else {
    write_number(data->rising_enable, enable ? 1 : 0);
    write_number(data->falling_enable, enable ? 1 : 0);
  }
}

// The device's own counts; what is below 0 or beyond 32 bits wraps, as the kernel is told "%d".
gint shifted_threshold(const IioIntPortData* data, guint32 level) {
  const guint shift = bitshift(data);
  return static_cast<gint>(shift < 32 ? level << shift : 0);
}

void arm_one_threshold(const IioIntPortData* data, const SupervisedRange* range) {
  const bool rising = range->lower == 0;
  if (rising) {
    write_number(data->rising_value, static_cast<gint>(range->upper + data->hysteresis));
  } else {
    write_number(data->falling_value, static_cast<gint>(range->lower - data->hysteresis));
  }
  if (data->either_enable) {
    write_number(data->either_enable, 1);
  } else {
    write_number(rising ? data->rising_enable : data->falling_enable, 1);
  }
}

void arm_thresholds(const IioIntPortData* data, const SupervisedRange* range) {
  if (data->one_threshold) {
    arm_one_threshold(data, range);
    return;
  }
  write_number(data->rising_value, shifted_threshold(data, range->upper + data->hysteresis));
  write_number(data->falling_value, shifted_threshold(data, range->lower - data->hysteresis));
  enable_events(data, true);
}

bool beyond_limits(const IioIntPortData* data, guint32 level) {
  return (data->lower_limit != limit_unset && level <= data->lower_limit)
         || (data->upper_limit != limit_unset && level >= data->upper_limit);
}

gboolean on_limit_timer(gpointer user_data);

// Arms the events around the range that holds the level. Beyond a limit the converter's events
// cannot be trusted; there the level is polled instead.
void update_thresholds(IoPort* port) {
  auto* data = backend_data<IioIntPortData>(port);
  if (port->ranges == nullptr) {
    return;
  }
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  if (!readout(port, false, &state, &level, nullptr)) {
    g_warning("%sCouldn't read adc value for %s\n", log_prefix, c_str_or_null(port->name));
    return;
  }
  const SupervisedRange* const range = range_of_level(port->ranges, level);
  if (range == nullptr) {
    return;
  }
  data->limit_timer.reset();
  if (beyond_limits(data, level)) {
    data->limit_timer.reset(g_timeout_add(data->limit_timeout_ms, on_limit_timer, port));
    return;
  }
  arm_thresholds(data, range);
}

gboolean on_limit_timer(gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<IioIntPortData>(port);
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  if (!readout(port, false, &state, &level, nullptr)) {
    g_warning("%sUnable to read from port %s\n", log_prefix, c_str_or_null(port->name));
    return G_SOURCE_CONTINUE;
  }
  report_if_changed(port, data, state);
  if (beyond_limits(data, level)) {
    return G_SOURCE_CONTINUE;
  }
  // This source ends by itself; the update may start another.
  data->limit_timer.forget();
  update_thresholds(port);
  return G_SOURCE_REMOVE;
}

// Watching

void on_device_event(IoPort* port, gint channel) {
  auto* data = backend_data<IioIntPortData>(port);
  if (static_cast<guint64>(channel) != data->channel) {
    return;
  }
  enable_events(data, false);
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  g_autoptr(GError) error = nullptr;
  if (!readout(port, false, &state, &level, &error)) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  } else {
    report_if_changed(port, data, state);
  }
  update_thresholds(port);
}

void stop_interrupts(IoPort* port, IioIntPortData* data) {
  data->limit_timer.reset();
  enable_events(data, false);
  iio_event_device_unwatch(port, data->device_path);
}

gboolean iio_int_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  if (!measured(port, data)) {
    data->pins.logic_watch.start(port, supervised_level_pin(port, data->pins), G_IO_PRI);
    stop_interrupts(port, data);
    return TRUE;
  }
  data->pins.logic_watch.stop();
  data->last_reported = SUPERVISED_UNDEFINED;
  iio_event_device_watch(port, data->device_path, on_device_event);
  update_thresholds(port);
  return TRUE;
}

// Setting up

bool open_event_file(IioIntPortData* data, const char* attribute, UniqueFd& fd) {
  const std::string path = event_path(data, attribute);
  fd.reset(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd) {
    g_warning("%sFailed to open sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
    return false;
  }
  return true;
}

bool open_event_files(IioIntPortData* data) {
  if (!open_event_file(data, "thresh_rising_value", data->rising_value)
      || !open_event_file(data, "thresh_falling_value", data->falling_value)) {
    return false;
  }
  if (g_file_test(event_path(data, "thresh_rising_en").c_str(), G_FILE_TEST_EXISTS)) {
    return open_event_file(data, "thresh_rising_en", data->rising_enable)
           && open_event_file(data, "thresh_falling_en", data->falling_enable);
  }
  return open_event_file(data, "thresh_either_en", data->either_enable);
}

// Settings of the whole device, told as the description has them; a device without one goes on.
void write_device_setting(const IioIntPortData* data, const char* file, const char* text) {
  const std::string path = iio_device_folder(data->device_number) + file;
  const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) {
    g_warning("%sFailed to open sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
    return;
  }
  if (write(fd, text, strlen(text)) < 0) {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(errno));
  }
  if (close(fd) != 0) {
    g_autofree gchar* name = g_path_get_basename(file);
    g_warning("%sCouldn't close %s", log_prefix, name);
  }
}

void write_device_settings(const IioIntPortData* data) {
  if (data->shared_samplefreq) {
    constexpr const char* shared = "in_voltage_sampling_frequency";
    const std::string path = iio_device_folder(data->device_number) + shared;
    write_device_setting(
        data, g_file_test(path.c_str(), G_FILE_TEST_EXISTS) ? shared : "sampling_frequency",
        data->shared_samplefreq->c_str());
  }
  if (data->shared_thresh_either_period) {
    write_device_setting(data, "events/in_voltage_thresh_either_period",
                         data->shared_thresh_either_period->c_str());
  }
  if (data->integration_time_us > 0) {
    const auto seconds = static_cast<double>(data->integration_time_us) / us_per_s;
    g_autofree gchar* text = g_strdup_printf("%f", seconds);
    write_device_setting(data, "in_proximity_integration_time", text);
  }
}

bool iio_int_setup_sysfs(IioIntPortData* data) {
  data->device_number = iio_get_device_number(data->driver ? data->driver->c_str() : "");
  if (data->device_number == -1) {
    g_warning("%sFailed to find device name", log_prefix);
    g_warning("%sFailed to setup sysfs", log_prefix);
    return false;
  }
  data->device_path = iio_device_node(data->device_number);
  return true;
}

bool setup_converter(IoPort* port, IioIntPortData* data) {
  if (!iio_int_setup_sysfs(data) || !iio_event_device_join(port, data->device_path)
      || !open_event_files(data)) {
    g_warning("%sFailed to setup iio device.", log_prefix);
    return false;
  }
  write_device_settings(data);
  write_number(data->falling_value, 0);
  write_number(data->rising_value, 1);
  enable_events(data, false);
  return true;
}

void iio_int_close(IoPort* port) {
  auto* data = backend_data<IioIntPortData>(port);
  if (data == nullptr) {
    return;
  }
  stop_interrupts(port, data);
  iio_event_device_leave(port, data->device_path);
  supervised_close_pins(data->pins);
  for (auto* fd : {&data->rising_value, &data->falling_value, &data->rising_enable,
                   &data->falling_enable, &data->either_enable}) {
    fd->reset();
  }
}

gboolean iio_int_setup(IoPort* port, gboolean state) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  const bool pins_ready =
      data->adc_only || supervised_setup_pins(port, data->pins, state, pin_setup(data));
  if (pins_ready && (port->type == PORT_OUTPUT || setup_converter(port, data))) {
    return TRUE;
  }
  iio_int_close(port);
  return FALSE;
}

gboolean iio_int_is_supervisable(IoPort* port) {
  const auto* data = backend_data<IioIntPortData>(port);
  return data != nullptr && !data->adc_only && supervised_is_supervisable(port);
}

gboolean iio_int_set_supervised(IoPort* port, gboolean /*supervised*/) {
  iio_int_set_watch(port);
  if (!io_port_input(port) && !io_port_set_direction(port, true)) {
    return FALSE;
  }
  const auto* data = backend_data<IioIntPortData>(port);
  supervised_set_control_pins(port, data->pins, pin_setup(data));
  return TRUE;
}

guint iio_int_get_state(IoPort* port) {
  const auto* data = backend_data_ensure<IioIntPortData>(port);
  if (!measured(port, data)) {
    return supervised_pin_level(port, data->pins);
  }
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  readout(port, false, &state, &level, nullptr);
  return state;
}

void iio_int_set_state(IoPort* port, gint state) {
  supervised_drive_output(port, backend_data_ensure<IioIntPortData>(port)->pins, state != 0);
}

void iio_int_set_direction(IoPort* port, gboolean input) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  stop_interrupts(port, data);
  supervised_turn_pins(port, data->pins, input, pin_setup(data));
}

// Vocabulary

using Apply = void (*)(IioIntPortData* data, const char* value);

struct DeviceKey {
  const char* key;
  Apply apply;
};

template <OptionalText IioIntPortData::*Field>
void set_text(IioIntPortData* data, const char* value) {
  data->*Field = value;
}

template <auto Field>
void set_unsigned(IioIntPortData* data, const char* value) {
  data->*Field = static_cast<std::remove_reference_t<decltype(data->*Field)>>(
      g_ascii_strtoull(value, nullptr, 10));
}

template <auto Field>
void set_signed(IioIntPortData* data, const char* value) {
  data->*Field = static_cast<std::remove_reference_t<decltype(data->*Field)>>(
      g_ascii_strtoll(value, nullptr, 10));
}

constexpr std::array device_keys{
    DeviceKey{"driver", set_text<&IioIntPortData::driver>},
    DeviceKey{"channel_name", set_text<&IioIntPortData::channel_name>},
    DeviceKey{"chan_extend_name", set_text<&IioIntPortData::chan_extend_name>},
    DeviceKey{"shared_samplefreq", set_text<&IioIntPortData::shared_samplefreq>},
    DeviceKey{"shared_thresh_either_period",
              set_text<&IioIntPortData::shared_thresh_either_period>},
    DeviceKey{"channel", set_unsigned<&IioIntPortData::channel>},
    DeviceKey{"hysteresis", set_unsigned<&IioIntPortData::hysteresis>},
    DeviceKey{"limit_timeout", set_unsigned<&IioIntPortData::limit_timeout_ms>},
    DeviceKey{"lower_limit", set_signed<&IioIntPortData::lower_limit>},
    DeviceKey{"upper_limit", set_signed<&IioIntPortData::upper_limit>},
    DeviceKey{"bitshift", set_signed<&IioIntPortData::bitshift>},
    DeviceKey{"integration_time", set_signed<&IioIntPortData::integration_time_us>},
    DeviceKey{"one_threshold",
              [](IioIntPortData* data, const char* value) {
                data->one_threshold = g_str_equal(value, "true");
              }},
    DeviceKey{"mode",
              [](IioIntPortData* data, const char* value) {
                data->adc_only = data->adc_only || g_str_equal(value, "adc");
              }},
    DeviceKey{"cache_ad_value",
              [](IioIntPortData* data, const char* value) {
                data->use_cached_level = data->use_cached_level && !g_str_equal(value, "false");
              }},
    DeviceKey{"pullup_when_supervised",
              [](IioIntPortData* data, const char* value) {
                data->pullup_when_supervised =
                    data->pullup_when_supervised || g_str_equal(value, "true");
              }},
};

void iio_int_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  if (supervised_parse_pin(data->pins, element, key, value)) {
    return;
  }
  if (g_str_equal(element, "range")) {
    supervised_parse_range(pending_range, port, key, value);
  } else if (g_str_equal(element, "device")) {
    for (const auto& entry : device_keys) {
      if (g_str_equal(entry.key, key)) {
        entry.apply(data, value);
      }
    }
  }
}

void iio_int_free(IoPort* port) {
  iio_int_close(port);
  backend_data_free<IioIntPortData>(port);
}

constexpr PortFunctions functions{
    .setup = iio_int_setup,
    .is_supervisable = iio_int_is_supervisable,
    .set_supervised = iio_int_set_supervised,
    .get_supervised_ranges = supervised_get_supervised_ranges,
    .set_supervised_ranges = supervised_set_supervised_ranges,
    .get_supervised_readout = iio_int_get_supervised_readout,
    .get_state = iio_int_get_state,
    .set_state = iio_int_set_state,
    .set_watch = iio_int_set_watch,
    .set_direction = iio_int_set_direction,
    .parse_data = iio_int_parse_data,
    .free = iio_int_free,
    .close = iio_int_close,
};
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* iio_int_setup_functions(IoPort* port) {
  backend_data_ensure<IioIntPortData>(port);
  return &functions;
}
