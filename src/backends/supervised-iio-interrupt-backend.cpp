#include "backends/supervised-iio-interrupt-backend.h"

#include "backends/description-keys.h"
#include "backends/hardware.h"
#include "backends/iio-event-device.h"
#include "backends/iio-threshold-channel.h"
#include "backends/supervised-pins.h"
#include "platform/callbacks.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "port/port-place.h"

#include <cerrno>
#include <tuple>
#include <utility>

namespace {

constexpr guint32 limit_unset = G_MAXUINT32;
constexpr guint default_limit_timeout_ms = 1000;

/// What a level is read for.
enum class Occasion { Event, Arming, Look };

class IioInterruptPort : public SupervisedPort {
public:
  explicit IioInterruptPort(IoPort& port)
      : port_(port), line_(port, {.function = "iio_int_setup_gpio", .sioctrl_optional = true}) {}
  ~IioInterruptPort() { close(); }
  IioInterruptPort(const IioInterruptPort&) = delete;
  IioInterruptPort& operator=(const IioInterruptPort&) = delete;

  bool setup(Level start);
  void close();
  [[nodiscard]] bool is_supervisable() const;
  bool set_supervised();
  std::optional<SupervisedReadout> get_supervised_readout(GError** error);
  [[nodiscard]] Level get_state();
  void set_state(Level level) { line_.drive(level); }
  bool set_watch();
  void set_direction(Direction direction);
  void parse_data(const char* element, const char* key, const char* value);

private:
  [[nodiscard]] bool measured() const { return adc_only_ || io_port_supervised_input(&port_); }
  [[nodiscard]] bool setup_converter();

  [[nodiscard]] bool read_level(Failure failure, GError** error);
  [[nodiscard]] std::optional<SupervisedReadout> classify(guint level, GError** error) const;
  [[nodiscard]] std::optional<SupervisedReadout> measure(GError** error);

  [[nodiscard]] bool beyond_limits(guint32 level) const;
  void tell_unreadable(Occasion occasion, const char* reason) const;
  std::optional<guint> watched_level(Occasion occasion);
  bool report_level(guint level);
  [[nodiscard]] bool arm(const SupervisedRange& range);
  void look_again(guint delay_ms);
  void look_behind(const SupervisedRange* range);
  void await_change(guint level);
  void update_thresholds();
  gboolean on_look_timer();
  bool on_device_event(gint channel);
  void stop_interrupts();

  static void take_mode(IioInterruptPort& port, const char* value);
  static void take_cache(IioInterruptPort& port, const char* value);
  static void take_pullup(IioInterruptPort& port, const char* value);

  IoPort& port_;
  /// No pins; the port is read through the converter only.
  bool adc_only_ = false;
  IioThresholdChannel channel_;
  guint32 lower_limit_ = limit_unset;
  guint32 upper_limit_ = limit_unset;
  guint limit_timeout_ms_ = default_limit_timeout_ms;
  /// Looks at the level where no event would tell of it.
  SourceId look_timer_;
  /// Readings fail.
  Trouble unreadable_;
  /// Events cannot be armed.
  Trouble unarmed_;
  bool use_cached_level_ = true;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level_{0};
  /// No reading has worked since the watch began.
  std::atomic<bool> awaits_reading_{false};
  SupervisedState last_reported_ = SUPERVISED_OPEN;
  SupervisedLine line_;
};

// Reading

bool IioInterruptPort::read_level(Failure failure, GError** error) {
  const auto level = iio_threshold_read(channel_, failure, error);
  if (level) {
    cached_level_ = *level;
    awaits_reading_ = false;
  }
  return level.has_value();
}

std::optional<SupervisedReadout> IioInterruptPort::classify(guint level, GError** error) const {
  if (port_.ranges.empty()) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED,
                "Failed to get ranges from port %s", c_str_or_null(port_.name));
    return std::nullopt;
  }
  return supervised_readout_of(&port_, level, error);
}

std::optional<SupervisedReadout> IioInterruptPort::measure(GError** error) {
  return read_level(Failure::Reported, error) ? classify(cached_level_, error) : std::nullopt;
}

std::optional<SupervisedReadout> IioInterruptPort::get_supervised_readout(GError** error) {
  if (!use_cached_level_) {
    return measure(error);
  }
  auto readout = classify(cached_level_, error);
  if (readout && awaits_reading_) {
    readout->state = SUPERVISED_UNDEFINED;
  }
  return readout;
}

// Watching

bool IioInterruptPort::beyond_limits(guint32 level) const {
  return (lower_limit_ != limit_unset && level <= lower_limit_)
         || (upper_limit_ != limit_unset && level >= upper_limit_);
}

void IioInterruptPort::look_again(guint delay_ms) {
  look_timer_.reset(g_timeout_add(delay_ms, callback<&IioInterruptPort::on_look_timer>, this));
}

void IioInterruptPort::tell_unreadable(Occasion occasion, const char* reason) const {
  switch (occasion) {
  case Occasion::Event:
    g_warning("%sReadout failed: %s", log_prefix, reason);
    break;
  case Occasion::Arming:
    g_warning("%sCouldn't read adc value for %s\n", log_prefix, c_str_or_null(port_.name));
    break;
  case Occasion::Look:
    g_warning("%sUnable to read from port %s\n", log_prefix, c_str_or_null(port_.name));
    break;
  }
}

// The level for the watch. A reading that fails leaves nothing armed, so another one follows.
std::optional<guint> IioInterruptPort::watched_level(Occasion occasion) {
  g_autoptr(GError) error = nullptr;
  if (read_level(unreadable_.due() ? Failure::Reported : Failure::Known, &error)) {
    if (unreadable_.end()) {
      g_message("%sConverter of port %d can be read again", log_prefix, port_.number);
    }
    return cached_level_;
  }
  if (unreadable_.tell()) {
    tell_unreadable(occasion, error->message);
  }
  look_again(shortest_rest_ms);
  return std::nullopt;
}

// Whether the state was a new one.
bool IioInterruptPort::report_level(guint level) {
  g_autoptr(GError) error = nullptr;
  const auto readout = classify(level, &error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
    return false;
  }
  if (readout->state == last_reported_) {
    return false;
  }
  io_port_trigger(&port_, ReportedState(readout->state));
  last_reported_ = readout->state;
  return true;
}

bool IioInterruptPort::arm(const SupervisedRange& range) {
  const int reason = iio_threshold_arm(channel_, range);
  if (reason == 0) {
    if (unarmed_.end()) {
      g_message("%sConverter of port %d takes its thresholds again", log_prefix, port_.number);
    }
    return true;
  }
  if (!unarmed_.tell()) {
    return false;
  }
  if (reason == ERANGE) {
    g_warning("%sThe level of port %d is beyond its converter's thresholds, polling it every %u ms",
              log_prefix, port_.number, limit_timeout_ms_);
  } else {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(reason));
  }
  return false;
}

// A converter may tell of crossings only; one between the reading and the arming would go
// unnoticed. What is found here is dealt with in the next turn of the main loop, which others
// share.
void IioInterruptPort::look_behind(const SupervisedRange* range) {
  if (const auto level = watched_level(Occasion::Arming);
      level && supervised_range_of(port_.ranges, *level) != range) {
    look_again(0);
  }
}

// Has the next change told: by an event that is armed around the range that holds the level. Beyond
// a limit the converter's events cannot be trusted, between the ranges there is nothing to arm, and
// a converter may refuse; the level is polled then.
void IioInterruptPort::await_change(guint level) {
  look_timer_.reset();
  if (port_.ranges.empty()) {
    return;
  }
  const SupervisedRange* const range = supervised_range_of(port_.ranges, level);
  if (range == nullptr || beyond_limits(level) || !arm(*range)) {
    look_again(limit_timeout_ms_);
    return;
  }
  look_behind(range);
}

void IioInterruptPort::update_thresholds() {
  if (port_.ranges.empty()) {
    return;
  }
  if (const auto level = watched_level(Occasion::Arming)) {
    await_change(*level);
  }
}

gboolean IioInterruptPort::on_look_timer() {
  const PortPlace place(&port_);
  // This source ends by itself; what follows may start another.
  look_timer_.forget();
  if (const auto level = watched_level(Occasion::Look)) {
    report_level(*level);
    await_change(*level);
  }
  return G_SOURCE_REMOVE;
}

bool IioInterruptPort::on_device_event(gint channel) {
  const PortPlace place(&port_);
  if (channel != iio_every_channel && std::cmp_not_equal(channel, channel_.channel)) {
    return false;
  }
  iio_threshold_hold(channel_);
  const auto level = watched_level(Occasion::Event);
  if (!level) {
    return false;
  }
  const bool news = report_level(*level);
  // Around what was reported: whatever the level has become since is found behind the arming.
  await_change(*level);
  return news;
}

void IioInterruptPort::stop_interrupts() {
  look_timer_.reset();
  unreadable_ = Trouble();
  unarmed_ = Trouble();
  iio_threshold_disarm(channel_);
  std::ignore = iio_event_device_unwatch(&port_, channel_.device_path);
}

bool IioInterruptPort::set_watch() {
  if (!measured()) {
    line_.watch(G_IO_PRI);
    stop_interrupts();
    return true;
  }
  line_.unwatch();
  last_reported_ = SUPERVISED_UNDEFINED;
  awaits_reading_ = true;
  iio_event_device_watch(&port_, channel_.device_path, [](IoPort* port, gint channel) {
    return hardware_of<IioInterruptPort>(port)->on_device_event(channel);
  });
  update_thresholds();
  return true;
}

// Setting up

bool IioInterruptPort::setup_converter() {
  if (!iio_threshold_find(channel_) || !iio_event_device_join(&port_, channel_.device_path)
      || !iio_threshold_open(channel_)) {
    g_warning("%sFailed to setup iio device.", log_prefix);
    return false;
  }
  iio_threshold_prepare(channel_);
  return true;
}

void IioInterruptPort::close() {
  stop_interrupts();
  iio_event_device_leave(&port_, channel_.device_path);
  line_.close();
  iio_threshold_close(channel_);
}

bool IioInterruptPort::setup(Level start) {
  const bool pins_ready = adc_only_ || line_.setup(start);
  if (pins_ready && (port_.type == PORT_OUTPUT || setup_converter())) {
    return true;
  }
  close();
  return false;
}

bool IioInterruptPort::is_supervisable() const {
  return !adc_only_ && supervised_is_supervisable(&port_);
}

bool IioInterruptPort::set_supervised() {
  set_watch();
  if (!io_port_input(&port_) && !io_port_set_direction(&port_, Direction::Input)) {
    return false;
  }
  std::ignore = line_.set_control_pins();
  return true;
}

Level IioInterruptPort::get_state() {
  if (!measured()) {
    return line_.level();
  }
  const auto readout = measure(nullptr);
  return readout ? supervised_level_of(readout->state) : Level::Unknown;
}

void IioInterruptPort::set_direction(Direction direction) {
  stop_interrupts();
  line_.turn(direction);
}

// Vocabulary. Three switches are turned by one word, and turned back by no other.

void IioInterruptPort::take_mode(IioInterruptPort& port, const char* value) {
  port.adc_only_ = port.adc_only_ || g_str_equal(value, "adc");
}

void IioInterruptPort::take_cache(IioInterruptPort& port, const char* value) {
  port.use_cached_level_ = port.use_cached_level_ && !g_str_equal(value, "false");
}

void IioInterruptPort::take_pullup(IioInterruptPort& port, const char* value) {
  if (g_str_equal(value, "true")) {
    port.line_.keep_ioctrl_on();
  }
}

void IioInterruptPort::parse_data(const char* element, const char* key, const char* value) {
  // Those of the port itself; the channel has its own.
  using Key = DescriptionKey<IioInterruptPort>;
  static constexpr std::array device_keys{
      Key{"limit_timeout", take_unsigned<&IioInterruptPort::limit_timeout_ms_>},
      Key{"lower_limit", take_number<&IioInterruptPort::lower_limit_>},
      Key{"upper_limit", take_number<&IioInterruptPort::upper_limit_>},
      Key{"mode", take_mode},
      Key{"cache_ad_value", take_cache},
      Key{"pullup_when_supervised", take_pullup},
  };
  static_assert(known_keys(iio_int_device_attributes, device_keys));
  static PendingRange pending; // One for all ports.
  if (!line_.parse(pending, element, key, value) && g_str_equal(element, "device")) {
    take_described(device_keys, *this, key, value);
    iio_threshold_parse(channel_, key, value);
  }
}

} // namespace

const PortFunctions* iio_int_setup_functions(IoPort* port) {
  return hardware_attach<IioInterruptPort>(port);
}
