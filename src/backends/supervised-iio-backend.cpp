#include "backends/supervised-iio-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "backends/iio-utils.h"
#include "backends/readable-watch.h"
#include "backends/supervised-pins.h"
#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace {

enum class Mode { GpioSupervised, Adc };

struct IioPortData {
  /// IIO name of the converter whose buffer is read.
  OptionalText device;
  /// IIO name of the device whose current trigger is set.
  OptionalText trigger_consumer;
  OptionalText trigger;
  OptionalText frequency;
  UniqueFd fd;
  IioScanType iio_type;
  Mode mode = Mode::GpioSupervised;
  SupervisedPins pins;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level{0};
  guint extra_shift = 0;
  gint channel = 0;
  guint last_reported = SUPERVISED_OPEN;
  // Last, so that it goes before the descriptor that it polls.
  ReadableWatch sample_watch;

  [[nodiscard]] gsize storage_bytes() const { return iio_type.size / 8; }

  void take(const char* element, const char* key, const char* value);
};

constexpr const char* trigger_folder = "/sys/kernel/config/iio/triggers/hrtimer/";
constexpr int trigger_folder_mode = 0775;
constexpr int trigger_type = 1;

constexpr PinSetup pin_setup{.function = "iio_setup_gpio", .tells_calls = true};

const char* text_or_empty(const OptionalText& text) {
  return text ? text->c_str() : "";
}

// Making the folder is what makes the trigger.
int make_trigger(const IioPortData* data) {
  const std::string folder = std::string(trigger_folder) + text_or_empty(data->trigger);
  if (!g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)
      && g_mkdir_with_parents(folder.c_str(), trigger_folder_mode) != 0) {
    g_warning("%sFailed to create sysfs directory '%s': %s", log_prefix, folder.c_str(),
              g_strerror(errno));
  }
  const int number = iio_get_device_number_with_type(text_or_empty(data->trigger), trigger_type);
  if (number == -1) {
    g_warning("%sFailed to find trigger", log_prefix);
  }
  return number;
}

void bind_trigger(const IioPortData* data, int consumer, int trigger) {
  iio_write_sysfs("/sys/bus/iio/devices/trigger" + std::to_string(trigger) + "/sampling_frequency",
                  text_or_empty(data->frequency));
  const std::string current = iio_device_folder(consumer) + "trigger/current_trigger";
  g_autofree char* bound = nullptr;
  iio_read_sysfs(current.c_str(), &bound);
  if (g_strcmp0(bound, text_or_empty(data->trigger)) != 0) {
    iio_write_sysfs(current, text_or_empty(data->trigger));
  }
}

// A converter with a single channel leaves its number out of the file names.
std::string channel_files(const IioPortData* data, int device) {
  std::string scan_elements = iio_device_folder(device) + "scan_elements/in_voltage";
  if (g_file_test((scan_elements + "_en").c_str(), G_FILE_TEST_EXISTS)) {
    return scan_elements;
  }
  return scan_elements + std::to_string(data->channel);
}

bool read_scan_type(IioPortData* backend, const std::string& channel) {
  g_autofree char* text = nullptr;
  errno = 0;
  iio_read_sysfs((channel + "_type").c_str(), &text);
  const auto type = text != nullptr ? iio_parse_scan_type(text) : std::nullopt;
  if (!type) {
    g_warning("%sFailed to find device type: %s", log_prefix, g_strerror(errno));
    return false;
  }
  backend->iio_type = *type;
  g_assert(backend->iio_type.sign == 'u');
  g_assert(backend->iio_type.bits <= 32);
  g_assert(backend->iio_type.size <= 32);
  g_assert(backend->iio_type.size % 8 == 0);
  if (backend->storage_bytes() == 0) {
    // Reading nothing would leave the device readable for ever.
    g_warning("%sFailed to find device type: samples of no size", log_prefix);
    return false;
  }
  return true;
}

// The buffer takes no change of its channels while it runs.
void switch_channel(const std::string& channel, int device, const char* on) {
  const std::string buffer_switch = iio_device_folder(device) + "buffer/enable";
  iio_write_sysfs(buffer_switch, "0");
  iio_write_sysfs(channel + "_en", on);
  iio_write_sysfs(buffer_switch, "1");
}

// 0, or the reason of a failure.
int open_node(IioPortData* data, int device) {
  data->fd.reset(open(iio_device_node(device).c_str(), O_RDONLY | O_CLOEXEC));
  const int reason = data->fd ? 0 : errno;
  if (reason != 0) {
    g_warning("%sFailed to open device: %s", log_prefix, g_strerror(reason));
  }
  return reason;
}

bool iio_setup_sysfs(IioPortData* data) {
  const int device = iio_get_device_number(text_or_empty(data->device));
  const int consumer = iio_get_device_number(text_or_empty(data->trigger_consumer));
  if (device == -1 || consumer == -1) {
    g_warning("%sFailed to find device name: %d %d", log_prefix, device, consumer);
    return false;
  }
  const int trigger = make_trigger(data);
  if (trigger == -1) {
    return false;
  }
  bind_trigger(data, consumer, trigger);
  const std::string channel = channel_files(data, device);
  if (!read_scan_type(data, channel)) {
    return false;
  }
  g_autofree char* before = nullptr;
  iio_read_sysfs((channel + "_en").c_str(), &before);
  switch_channel(channel, device, "1");
  if (const int open_errno = open_node(data, device); open_errno != 0) {
    // A channel more in the scan would make every sample too long for whoever has the node open.
    if (open_errno == EBUSY && g_strcmp0(before, "0") == 0) {
      switch_channel(channel, device, "0");
    }
    return false;
  }
  return true;
}

bool setup_converter(IioPortData* data) {
  // A node opens once; the one of an earlier attempt would be in the way.
  data->fd.reset();
  if (iio_setup_sysfs(data)) {
    return true;
  }
  g_warning("%sFailed to setup iio device.", log_prefix);
  return false;
}

gboolean iio_setup(IoPort* port, gboolean state) {
  auto* data = backend_data_ensure<IioPortData>(port);
  const bool pins_ready =
      data->mode == Mode::Adc || supervised_setup_pins(port, data->pins, state, pin_setup);
  if (pins_ready && (port->type == PORT_OUTPUT || setup_converter(data))) {
    return TRUE;
  }
  data->fd.reset();
  supervised_close_pins(data->pins);
  return FALSE;
}

gboolean classify_cached(IoPort* port, guint* state, guint* level, GError** error) {
  *level = backend_data_ensure<IioPortData>(port)->cached_level;
  return supervised_lookup_state(port, *level, state, error);
}

bool read_sample(IioPortData* data, GError** error) {
  std::array<guint8, 4> sample{};
  const gsize bytes = std::min(data->storage_bytes(), sample.size());
  errno = 0;
  const ssize_t got = read(data->fd.get(), sample.data(), bytes);
  if (got < 0 || static_cast<gsize>(got) != bytes) {
    const char* const reason = got < 0 ? g_strerror(errno) : "sample cut short";
    g_warning("%sread Error: %s", log_prefix, reason);
    g_set_error_literal(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC, reason);
    return false;
  }
  const guint32 value = iio_decode_sample(data->iio_type, std::span(sample).first(bytes));
  data->cached_level = iio_shift_right(value, data->extra_shift);
  return true;
}

void on_sample(gpointer user_data) {
  auto* port = static_cast<IoPort*>(user_data);
  auto* data = backend_data<IioPortData>(port);
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  g_autoptr(GError) error = nullptr;
  if (!read_sample(data, &error) || !classify_cached(port, &state, &level, &error)) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  }
  if (state != data->last_reported) {
    io_port_trigger(port, state);
    data->last_reported = state;
  }
}

void start_sample_watch(IoPort* port, IioPortData* data) {
  if (data->sample_watch || !data->fd) {
    return;
  }
  data->last_reported = SUPERVISED_UNDEFINED;
  data->sample_watch.start(data->fd.get(), text_or_empty(data->device), on_sample, port);
}

void apply_watches(IoPort* port) {
  auto* data = backend_data_ensure<IioPortData>(port);
  const bool sampled = data->mode == Mode::Adc || io_port_supervised_input(port);
  if (sampled) {
    data->pins.logic_watch.stop();
    start_sample_watch(port, data);
  } else {
    data->sample_watch.stop();
    data->pins.logic_watch.start(port, supervised_level_pin(port, data->pins));
  }
}

gboolean iio_set_watch(IoPort* port) {
  apply_watches(port);
  return TRUE;
}

gboolean iio_is_supervisable(IoPort* port) {
  const auto* data = backend_data<IioPortData>(port);
  return data != nullptr && data->mode != Mode::Adc && supervised_is_supervisable(port);
}

gboolean iio_set_supervised(IoPort* port, gboolean /*supervised*/) {
  apply_watches(port);
  if (!io_port_input(port) && !io_port_set_direction(port, true)) {
    return FALSE;
  }
  supervised_set_control_pins(port, backend_data<IioPortData>(port)->pins, pin_setup);
  return TRUE;
}

guint iio_get_state(IoPort* port) {
  const auto* data = backend_data_ensure<IioPortData>(port);
  if (data->mode == Mode::GpioSupervised && !io_port_supervised_input(port)) {
    return supervised_pin_level(port, data->pins);
  }
  guint state = SUPERVISED_UNDEFINED;
  guint level = 0;
  g_autoptr(GError) error = nullptr;
  if (!classify_cached(port, &state, &level, &error)) {
    g_warning("%sGet state failed: %s", log_prefix, error->message);
  }
  return state;
}

void iio_set_direction(IoPort* port, gboolean input) {
  auto* data = backend_data_ensure<IioPortData>(port);
  data->sample_watch.stop();
  supervised_turn_pins(port, data->pins, input, pin_setup);
}

constexpr std::array device_keys{
    DescriptionKey<IioPortData>{"name", take_text<&IioPortData::device>},
    DescriptionKey<IioPortData>{"adc", take_text<&IioPortData::trigger_consumer>},
    DescriptionKey<IioPortData>{"hrtimer", take_text<&IioPortData::trigger>},
    DescriptionKey<IioPortData>{"freq", take_text<&IioPortData::frequency>},
    DescriptionKey<IioPortData>{"shift", take_number<&IioPortData::extra_shift>},
    DescriptionKey<IioPortData>{"channel", take_number<&IioPortData::channel>},
    DescriptionKey<IioPortData>{"mode",
                                [](IioPortData& data, const char* value) {
                                  if (g_str_equal(value, "adc")) {
                                    data.mode = Mode::Adc;
                                  }
                                }},
};

void IioPortData::take(const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "device")) {
    take_described(device_keys, *this, key, value);
  }
}

constexpr PortFunctions functions = supervised_table<IioPortData>({
    .setup = iio_setup,
    .is_supervisable = iio_is_supervisable,
    .set_supervised = iio_set_supervised,
    .get_supervised_readout = classify_cached,
    .get_state = iio_get_state,
    .set_watch = iio_set_watch,
    .set_direction = iio_set_direction,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* iio_setup_functions(IoPort* port) {
  return backend_attach<IioPortData>(port, functions);
}
