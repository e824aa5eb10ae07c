#include "backends/supervised-iio-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"
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

/// The converter: what is described, and what its set-up finds and opens.
struct Converter {
  /// IIO name of the converter whose buffer is read.
  OptionalText device;
  /// IIO name of the device whose current trigger is set.
  OptionalText trigger_consumer;
  OptionalText trigger;
  OptionalText frequency;
  guint extra_shift = 0;
  gint channel = 0;
  /// No pins; the port is read through the converter only.
  bool alone = false;
  UniqueFd fd;
  IioScanType iio_type;

  [[nodiscard]] gsize storage_bytes() const { return iio_type.size / 8; }
};

constexpr const char* trigger_folder = "/sys/kernel/config/iio/triggers/hrtimer/";
constexpr int trigger_folder_mode = 0775;
constexpr int trigger_type = 1;

const char* text_or_empty(const OptionalText& text) {
  return text ? text->c_str() : "";
}

// Making the folder is what makes the trigger.
int make_trigger(const Converter& converter) {
  const std::string folder = std::string(trigger_folder) + text_or_empty(converter.trigger);
  if (!g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)
      && g_mkdir_with_parents(folder.c_str(), trigger_folder_mode) != 0) {
    remark_missing_kernel_part(iio_trigger_kernel_parts);
    g_warning("%sFailed to create sysfs directory '%s': %s", log_prefix, folder.c_str(),
              g_strerror(errno));
  }
  const int number =
      iio_get_device_number_with_type(text_or_empty(converter.trigger), trigger_type);
  if (number == -1) {
    g_warning("%sFailed to find trigger", log_prefix);
  }
  return number;
}

void bind_trigger(const Converter& converter, int consumer, int trigger) {
  iio_write_sysfs("/sys/bus/iio/devices/trigger" + std::to_string(trigger) + "/sampling_frequency",
                  text_or_empty(converter.frequency));
  const std::string current = iio_device_folder(consumer) + "trigger/current_trigger";
  g_autofree char* bound = nullptr;
  iio_read_sysfs(current.c_str(), &bound);
  if (g_strcmp0(bound, text_or_empty(converter.trigger)) != 0) {
    iio_write_sysfs(current, text_or_empty(converter.trigger));
  }
}

// A converter with a single channel leaves its number out of the file names.
std::string channel_files(const Converter& converter, int device) {
  std::string scan_elements = iio_device_folder(device) + "scan_elements/in_voltage";
  if (g_file_test((scan_elements + "_en").c_str(), G_FILE_TEST_EXISTS)) {
    return scan_elements;
  }
  return scan_elements + std::to_string(converter.channel);
}

bool read_scan_type(Converter& converter, const std::string& channel) {
  g_autofree char* text = nullptr;
  errno = 0;
  iio_read_sysfs((channel + "_type").c_str(), &text);
  const auto type = text != nullptr ? iio_parse_scan_type(text) : std::nullopt;
  if (!type) {
    g_warning("%sFailed to find device type: %s", log_prefix, g_strerror(errno));
    return false;
  }
  converter.iio_type = *type;
  const Converter* const backend = &converter;
  g_assert(backend->iio_type.sign == 'u');
  g_assert(backend->iio_type.bits <= 32);
  g_assert(backend->iio_type.size <= 32);
  g_assert(backend->iio_type.size % 8 == 0);
  if (converter.storage_bytes() == 0) {
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
bool scan_is_own(const Converter& converter, int device, const std::string& own) {
  for (const auto& other : others_in_scan(device, own)) {
    g_autofree gchar* name = g_path_get_basename(other.c_str());
    g_warning("%sThe scan of %s holds %s besides the port's channel", log_prefix,
              text_or_empty(converter.device), name);
    return false;
  }
  if (!switched_on(own)) {
    g_warning("%sThe scan of %s does not take the port's channel", log_prefix,
              text_or_empty(converter.device));
    return false;
  }
  return true;
}

// The buffer takes no change of its channels while it runs.
bool take_scan(const Converter& converter, int device, const std::string& own) {
  const std::string buffer_switch = iio_device_folder(device) + "buffer/enable";
  iio_write_sysfs(buffer_switch, "0");
  for (const auto& other : others_in_scan(device, own)) {
    iio_write_sysfs(other, "0");
  }
  iio_write_sysfs(own, "1");
  if (!scan_is_own(converter, device, own)) {
    return false;
  }
  iio_write_sysfs(buffer_switch, "1");
  return true;
}

// 0, or the reason of a failure. Reading never waits: what polling saw may be gone.
int open_node(Converter& converter, int device) {
  converter.fd.reset(open(iio_device_node(device).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return converter.fd ? 0 : errno;
}

bool told_open(int reason) {
  if (reason != 0) {
    g_warning("%sFailed to open device: %s", log_prefix, g_strerror(reason));
  }
  return reason == 0;
}

// What the buffer holds is from before, and it keeps the oldest until somebody reads them. Bounded,
// for a converter that is faster than its reader.
void drop_samples(const Converter& converter) {
  constexpr int most_reads = 64;
  constexpr gsize whole_samples = 4092; // of any size from 1 to 4
  std::array<guint8, whole_samples> samples{};
  for (int i = 0; i < most_reads; i++) {
    if (read(converter.fd.get(), samples.data(), samples.size()) != whole_samples) {
      return;
    }
  }
}

bool iio_setup_sysfs(Converter& converter) {
  const int device = iio_get_device_number(text_or_empty(converter.device));
  const int consumer = iio_get_device_number(text_or_empty(converter.trigger_consumer));
  if (device == -1 || consumer == -1) {
    g_warning("%sFailed to find device name: %d %d", log_prefix, device, consumer);
    return false;
  }
  // A node opens once. Whoever has it is being served, so nothing may be changed then.
  if (const int reason = open_node(converter, device); reason == EBUSY) {
    return told_open(reason);
  }
  const int trigger = make_trigger(converter);
  if (trigger == -1) {
    return false;
  }
  bind_trigger(converter, consumer, trigger);
  const std::string channel = channel_files(converter, device);
  if (!read_scan_type(converter, channel) || !take_scan(converter, device, channel + "_en")) {
    return false;
  }
  if (!converter.fd && !told_open(open_node(converter, device))) {
    return false;
  }
  drop_samples(converter);
  return true;
}

bool setup_converter(Converter& converter) {
  // A node opens once; the one of an earlier attempt would be in the way.
  converter.fd.reset();
  if (iio_setup_sysfs(converter)) {
    return true;
  }
  g_warning("%sFailed to setup iio device.", log_prefix);
  return false;
}

enum class Sample { Taken, None, Failed };

class IioBufferedPort : public SupervisedPort {
public:
  explicit IioBufferedPort(IoPort& port)
      : port_(port), line_(port, {.function = "iio_setup_gpio", .tells_calls = true}) {}

  bool setup(Level start);
  [[nodiscard]] bool is_supervisable() const;
  bool set_supervised();
  [[nodiscard]] std::optional<SupervisedReadout> get_supervised_readout(GError** error) const;
  [[nodiscard]] Level get_state() const;
  void set_state(Level level) { line_.drive(level); }
  bool set_watch();
  void set_direction(Direction direction);
  void parse_data(const char* element, const char* key, const char* value);

private:
  Sample read_sample(const char** reason);
  void report_if_changed(SupervisedState state);
  ReadableWatch::Found on_unreadable_sample(const char* reason);
  ReadableWatch::Found on_sample();
  void forget_samples();
  void start_sample_watch();

  IoPort& port_;
  Converter converter_;
  SupervisedLine line_;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level_{0};
  /// No sample has come since the line was led to the converter.
  std::atomic<bool> awaits_sample_{false};
  bool led_to_converter_ = false;
  SupervisedState last_reported_ = SUPERVISED_OPEN;
  /// Samples cannot be read.
  Trouble unreadable_;
  // Last, so that it goes before the descriptor that it polls.
  ReadableWatch sample_watch_;
};

bool IioBufferedPort::setup(Level start) {
  const bool pins_ready = converter_.alone || line_.setup(start);
  if (pins_ready && (port_.type == PORT_OUTPUT || setup_converter(converter_))) {
    return true;
  }
  converter_.fd.reset();
  line_.close();
  return false;
}

// A level of before tells nothing of the line as it is now.
std::optional<SupervisedReadout> IioBufferedPort::get_supervised_readout(GError** error) const {
  auto readout = supervised_readout_of(&port_, cached_level_, error);
  if (readout && awaits_sample_) {
    readout->state = SUPERVISED_UNDEFINED;
  }
  return readout;
}

// Takes the next sample into the cache; `reason` is that of a failure.
Sample IioBufferedPort::read_sample(const char** reason) {
  std::array<guint8, 4> sample{};
  const gsize bytes = std::min(converter_.storage_bytes(), sample.size());
  const ssize_t got = read(converter_.fd.get(), sample.data(), bytes);
  if (got < 0 && errno == EAGAIN) {
    return Sample::None;
  }
  if (got < 0 || std::cmp_not_equal(got, bytes)) {
    *reason = got < 0 ? g_strerror(errno) : "sample cut short";
    return Sample::Failed;
  }
  const guint32 value = iio_decode_sample(converter_.iio_type, std::span(sample).first(bytes));
  cached_level_ = iio_shift_right(value, converter_.extra_shift);
  awaits_sample_ = false;
  return Sample::Taken;
}

void IioBufferedPort::report_if_changed(SupervisedState state) {
  if (state != last_reported_) {
    io_port_trigger(&port_, ReportedState(state));
    last_reported_ = state;
  }
}

// What cannot be read stays in the buffer, which goes on showing that it has something.
ReadableWatch::Found IioBufferedPort::on_unreadable_sample(const char* reason) {
  if (unreadable_.tell()) {
    g_warning("%sread Error: %s", log_prefix, reason);
    g_warning("%sReadout failed: %s", log_prefix, reason);
  }
  report_if_changed(SUPERVISED_UNDEFINED);
  return ReadableWatch::Found::Trouble;
}

ReadableWatch::Found IioBufferedPort::on_sample() {
  const PortPlace place(&port_);
  const char* reason = nullptr;
  const Sample sample = read_sample(&reason);
  if (sample == Sample::None) {
    return ReadableWatch::Found::Trouble;
  }
  if (sample == Sample::Failed) {
    return on_unreadable_sample(reason);
  }
  if (unreadable_.end()) {
    g_message("%sConverter of port %d can be read again", log_prefix, port_.number);
  }
  g_autoptr(GError) error = nullptr;
  const auto readout = get_supervised_readout(&error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
  }
  report_if_changed(readout ? readout->state : SUPERVISED_UNDEFINED);
  return ReadableWatch::Found::Sense;
}

// Whatever the converter has measured so far was not this line, or not now.
void IioBufferedPort::forget_samples() {
  drop_samples(converter_);
  awaits_sample_ = true;
}

void IioBufferedPort::start_sample_watch() {
  if (sample_watch_ || !converter_.fd) {
    return;
  }
  if (std::exchange(led_to_converter_, true)) {
    drop_samples(converter_);
  } else {
    forget_samples();
  }
  last_reported_ = SUPERVISED_UNDEFINED;
  unreadable_ = Trouble();
  sample_watch_.start(converter_.fd.get(), text_or_empty(converter_.device),
                      [this] { return on_sample(); });
}

bool IioBufferedPort::set_watch() {
  if (converter_.alone || io_port_supervised_input(&port_)) {
    line_.unwatch();
    start_sample_watch();
  } else {
    sample_watch_.stop();
    led_to_converter_ = false;
    line_.watch();
  }
  return true;
}

bool IioBufferedPort::is_supervisable() const {
  return !converter_.alone && supervised_is_supervisable(&port_);
}

bool IioBufferedPort::set_supervised() {
  const bool sampled_before{sample_watch_};
  set_watch();
  if (!io_port_input(&port_) && !io_port_set_direction(&port_, Direction::Input)) {
    return false;
  }
  std::ignore = line_.set_control_pins();
  if (sample_watch_ && !sampled_before) {
    // Taken before the line was led to the converter.
    forget_samples();
  }
  return true;
}

Level IioBufferedPort::get_state() const {
  if (!converter_.alone && !io_port_supervised_input(&port_)) {
    return line_.level();
  }
  g_autoptr(GError) error = nullptr;
  const auto readout = get_supervised_readout(&error);
  if (!readout) {
    g_warning("%sGet state failed: %s", log_prefix, error->message);
    return Level::Unknown;
  }
  return supervised_level_of(readout->state);
}

void IioBufferedPort::set_direction(Direction direction) {
  sample_watch_.stop();
  led_to_converter_ = led_to_converter_ && direction == Direction::Input;
  line_.turn(direction);
}

constexpr std::array converter_keys{
    DescriptionKey<Converter>{"name", take_text<&Converter::device>},
    DescriptionKey<Converter>{"adc", take_text<&Converter::trigger_consumer>},
    DescriptionKey<Converter>{"hrtimer", take_text<&Converter::trigger>},
    DescriptionKey<Converter>{"freq", take_text<&Converter::frequency>},
    DescriptionKey<Converter>{"shift", take_number<&Converter::extra_shift>},
    DescriptionKey<Converter>{"channel", take_number<&Converter::channel>},
    DescriptionKey<Converter>{"mode",
                              [](Converter& converter, const char* value) {
                                if (g_str_equal(value, "adc")) {
                                  converter.alone = true;
                                }
                              }},
};
static_assert(same_keys(iio_device_attributes, converter_keys));

void IioBufferedPort::parse_data(const char* element, const char* key, const char* value) {
  static PendingRange pending; // One for all ports.
  if (!line_.parse(pending, element, key, value) && g_str_equal(element, "device")) {
    take_described(converter_keys, converter_, key, value);
  }
}

} // namespace

const PortFunctions* iio_setup_functions(IoPort* port) {
  return hardware_attach<IioBufferedPort>(port);
}
