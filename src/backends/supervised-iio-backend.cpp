#include "backends/supervised-iio-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "backends/iio-utils.h"
#include "backends/readable-watch.h"
#include "backends/supervised-pins.h"
#include "platform/handles.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"
#include "port/port-place.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>
#include <vector>

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
  /// No sample has come since the line was led to the converter.
  std::atomic<bool> awaits_sample{false};
  bool led_to_converter = false;
  guint extra_shift = 0;
  gint channel = 0;
  SupervisedState last_reported = SUPERVISED_OPEN;
  /// Samples cannot be read.
  Trouble unreadable;
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
    remark_missing_kernel_part(iio_trigger_kernel_parts);
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

bool switched_on(const std::string& path) {
  g_autofree char* text = nullptr;
  return g_file_get_contents(path.c_str(), &text, nullptr, nullptr) && text[0] == '1';
}

// Switches of the scan that are on, but for the port's own.
std::vector<std::string> others_in_scan(int device, const std::string& own) {
  const std::string folder = iio_device_folder(device) + "scan_elements/";
  std::vector<std::string> others;
  g_autoptr(GDir) dir = g_dir_open(folder.c_str(), 0, nullptr);
  while (const gchar* entry = dir != nullptr ? g_dir_read_name(dir) : nullptr) {
    const std::string path = folder + entry;
    if (path != own && path.ends_with("_en") && switched_on(path)) {
      others.push_back(path);
    }
  }
  return others;
}

// A scan is laid out as it should be when it holds the port's channel alone: with another one, or a
// time, in it, no sample would be short enough to be read.
bool scan_is_own(const IioPortData* data, int device, const std::string& own) {
  for (const auto& other : others_in_scan(device, own)) {
    g_autofree gchar* name = g_path_get_basename(other.c_str());
    g_warning("%sThe scan of %s holds %s besides the port's channel", log_prefix,
              text_or_empty(data->device), name);
    return false;
  }
  if (!switched_on(own)) {
    g_warning("%sThe scan of %s does not take the port's channel", log_prefix,
              text_or_empty(data->device));
    return false;
  }
  return true;
}

// The buffer takes no change of its channels while it runs.
bool take_scan(const IioPortData* data, int device, const std::string& own) {
  const std::string buffer_switch = iio_device_folder(device) + "buffer/enable";
  iio_write_sysfs(buffer_switch, "0");
  for (const auto& other : others_in_scan(device, own)) {
    iio_write_sysfs(other, "0");
  }
  iio_write_sysfs(own, "1");
  if (!scan_is_own(data, device, own)) {
    return false;
  }
  iio_write_sysfs(buffer_switch, "1");
  return true;
}

// 0, or the reason of a failure. Reading never waits: what polling saw may be gone.
int open_node(IioPortData* data, int device) {
  data->fd.reset(open(iio_device_node(device).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return data->fd ? 0 : errno;
}

bool told_open(int reason) {
  if (reason != 0) {
    g_warning("%sFailed to open device: %s", log_prefix, g_strerror(reason));
  }
  return reason == 0;
}

// What the buffer holds is from before, and it keeps the oldest until somebody reads them. Bounded,
// for a converter that is faster than its reader.
void drop_samples(const IioPortData* data) {
  constexpr int most_reads = 64;
  constexpr gsize whole_samples = 4092; // of any size from 1 to 4
  std::array<guint8, whole_samples> samples{};
  for (int i = 0; i < most_reads; i++) {
    if (read(data->fd.get(), samples.data(), samples.size()) != whole_samples) {
      return;
    }
  }
}

bool iio_setup_sysfs(IioPortData* data) {
  const int device = iio_get_device_number(text_or_empty(data->device));
  const int consumer = iio_get_device_number(text_or_empty(data->trigger_consumer));
  if (device == -1 || consumer == -1) {
    g_warning("%sFailed to find device name: %d %d", log_prefix, device, consumer);
    return false;
  }
  // A node opens once. Whoever has it is being served, so nothing may be changed then.
  if (const int reason = open_node(data, device); reason == EBUSY) {
    return told_open(reason);
  }
  const int trigger = make_trigger(data);
  if (trigger == -1) {
    return false;
  }
  bind_trigger(data, consumer, trigger);
  const std::string channel = channel_files(data, device);
  if (!read_scan_type(data, channel) || !take_scan(data, device, channel + "_en")) {
    return false;
  }
  if (!data->fd && !told_open(open_node(data, device))) {
    return false;
  }
  drop_samples(data);
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

bool iio_setup(IoPort* port, Level start) {
  auto* data = backend_data_ensure<IioPortData>(port);
  const bool pins_ready =
      data->mode == Mode::Adc || supervised_setup_pins(port, data->pins, start, pin_setup);
  if (pins_ready && (port->type == PORT_OUTPUT || setup_converter(data))) {
    return true;
  }
  data->fd.reset();
  supervised_close_pins(data->pins);
  return false;
}

// A level of before tells nothing of the line as it is now.
std::optional<SupervisedReadout> classify_cached(IoPort* port, GError** error) {
  const auto* data = backend_data_ensure<IioPortData>(port);
  auto readout = supervised_readout_of(port, data->cached_level, error);
  if (readout && data->awaits_sample) {
    readout->state = SUPERVISED_UNDEFINED;
  }
  return readout;
}

enum class Sample { Taken, None, Failed };

// Takes the next sample into the cache; `reason` is that of a failure.
Sample read_sample(IioPortData* data, const char** reason) {
  std::array<guint8, 4> sample{};
  const gsize bytes = std::min(data->storage_bytes(), sample.size());
  const ssize_t got = read(data->fd.get(), sample.data(), bytes);
  if (got < 0 && errno == EAGAIN) {
    return Sample::None;
  }
  if (got < 0 || std::cmp_not_equal(got, bytes)) {
    *reason = got < 0 ? g_strerror(errno) : "sample cut short";
    return Sample::Failed;
  }
  const guint32 value = iio_decode_sample(data->iio_type, std::span(sample).first(bytes));
  data->cached_level = iio_shift_right(value, data->extra_shift);
  data->awaits_sample = false;
  return Sample::Taken;
}

void report_if_changed(IoPort* port, IioPortData* data, SupervisedState state) {
  if (state != data->last_reported) {
    io_port_trigger(port, ReportedState(state));
    data->last_reported = state;
  }
}

// What cannot be read stays in the buffer, which goes on showing that it has something.
ReadableWatch::Found on_unreadable_sample(IoPort* port, IioPortData* data, const char* reason) {
  if (data->unreadable.tell()) {
    g_warning("%sread Error: %s", log_prefix, reason);
    g_warning("%sReadout failed: %s", log_prefix, reason);
  }
  report_if_changed(port, data, SUPERVISED_UNDEFINED);
  return ReadableWatch::Found::Trouble;
}

ReadableWatch::Found on_sample(IoPort* port) {
  const PortPlace place(port);
  auto* data = backend_data<IioPortData>(port);
  const char* reason = nullptr;
  const Sample sample = read_sample(data, &reason);
  if (sample == Sample::None) {
    return ReadableWatch::Found::Trouble;
  }
  if (sample == Sample::Failed) {
    return on_unreadable_sample(port, data, reason);
  }
  if (data->unreadable.end()) {
    g_message("%sConverter of port %d can be read again", log_prefix, port->number);
  }
  g_autoptr(GError) error = nullptr;
  const auto readout = classify_cached(port, &error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  }
  report_if_changed(port, data, readout ? readout->state : SUPERVISED_UNDEFINED);
  return ReadableWatch::Found::Sense;
}

// Whatever the converter has measured so far was not this line, or not now.
void forget_samples(IioPortData* data) {
  drop_samples(data);
  data->awaits_sample = true;
}

void start_sample_watch(IoPort* port, IioPortData* data) {
  if (data->sample_watch || !data->fd) {
    return;
  }
  if (std::exchange(data->led_to_converter, true)) {
    drop_samples(data);
  } else {
    forget_samples(data);
  }
  data->last_reported = SUPERVISED_UNDEFINED;
  data->unreadable = Trouble();
  data->sample_watch.start(data->fd.get(), text_or_empty(data->device),
                           [port] { return on_sample(port); });
}

void apply_watches(IoPort* port) {
  auto* data = backend_data_ensure<IioPortData>(port);
  const bool sampled = data->mode == Mode::Adc || io_port_supervised_input(port);
  if (sampled) {
    data->pins.logic_watch.stop();
    start_sample_watch(port, data);
  } else {
    data->sample_watch.stop();
    data->led_to_converter = false;
    std::ignore = data->pins.logic_watch.start(port, supervised_level_pin(port, data->pins));
  }
}

bool iio_set_watch(IoPort* port) {
  apply_watches(port);
  return true;
}

bool iio_is_supervisable(IoPort* port) {
  const auto* data = backend_data<IioPortData>(port);
  return data != nullptr && data->mode != Mode::Adc && supervised_is_supervisable(port);
}

bool iio_set_supervised(IoPort* port) {
  auto* data = backend_data_ensure<IioPortData>(port);
  const bool sampled_before{data->sample_watch};
  apply_watches(port);
  if (!io_port_input(port) && !io_port_set_direction(port, Direction::Input)) {
    return false;
  }
  std::ignore = supervised_set_control_pins(port, data->pins, pin_setup);
  if (data->sample_watch && !sampled_before) {
    // Taken before the line was led to the converter.
    forget_samples(data);
  }
  return true;
}

Level iio_get_state(IoPort* port) {
  const auto* data = backend_data_ensure<IioPortData>(port);
  if (data->mode == Mode::GpioSupervised && !io_port_supervised_input(port)) {
    return supervised_pin_level(port, data->pins);
  }
  g_autoptr(GError) error = nullptr;
  const auto readout = classify_cached(port, &error);
  if (!readout) {
    g_warning("%sGet state failed: %s", log_prefix, error->message);
    return Level::Unknown;
  }
  return supervised_level_of(readout->state);
}

void iio_set_direction(IoPort* port, Direction direction) {
  auto* data = backend_data_ensure<IioPortData>(port);
  data->sample_watch.stop();
  data->led_to_converter = data->led_to_converter && direction == Direction::Input;
  supervised_turn_pins(port, data->pins, direction, pin_setup);
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
static_assert(same_keys(iio_device_attributes, device_keys));

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
