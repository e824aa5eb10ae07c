#include "backends/supervised-iio-interrupt-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
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

struct IioIntPortData {
  /// No pins; the port is read through the converter only.
  bool adc_only = false;
  IioThresholdChannel channel;
  guint32 lower_limit = limit_unset;
  guint32 upper_limit = limit_unset;
  guint limit_timeout_ms = default_limit_timeout_ms;
  /// Looks at the level where no event would tell of it.
  SourceId look_timer;
  /// Readings fail.
  Trouble unreadable;
  /// Events cannot be armed.
  Trouble unarmed;
  bool use_cached_level = true;
  bool pullup_when_supervised = false;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level{0};
  /// No reading has worked since the watch began.
  std::atomic<bool> awaits_reading{false};
  SupervisedState last_reported = SUPERVISED_OPEN;
  SupervisedPins pins;

  void take(const char* element, const char* key, const char* value);
};

PinSetup pin_setup(const IioIntPortData* data) {
  return {.function = "iio_int_setup_gpio",
          .sioctrl_optional = true,
          .ioctrl_always_on = data->pullup_when_supervised};
}

bool measured(IoPort* port, const IioIntPortData* data) {
  return data->adc_only || io_port_supervised_input(port);
}

// Reading

bool read_level(IioIntPortData* data, Failure failure, GError** error) {
  const auto level = iio_threshold_read(data->channel, failure, error);
  if (level) {
    data->cached_level = *level;
    data->awaits_reading = false;
  }
  return level.has_value();
}

std::optional<SupervisedReadout> classify(IoPort* port, guint level, GError** error) {
  if (port->ranges.empty()) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED,
                "Failed to get ranges from port %s", c_str_or_null(port->name));
    return std::nullopt;
  }
  return supervised_readout_of(port, level, error);
}

std::optional<SupervisedReadout> measure(IoPort* port, GError** error) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  return read_level(data, Failure::Reported, error) ? classify(port, data->cached_level, error)
                                                    : std::nullopt;
}

std::optional<SupervisedReadout> iio_int_get_supervised_readout(IoPort* port, GError** error) {
  const auto* data = backend_data_ensure<IioIntPortData>(port);
  if (!data->use_cached_level) {
    return measure(port, error);
  }
  auto readout = classify(port, data->cached_level, error);
  if (readout && data->awaits_reading) {
    readout->state = SUPERVISED_UNDEFINED;
  }
  return readout;
}

// Watching

bool beyond_limits(const IioIntPortData* data, guint32 level) {
  return (data->lower_limit != limit_unset && level <= data->lower_limit)
         || (data->upper_limit != limit_unset && level >= data->upper_limit);
}

gboolean on_look_timer(IoPort* port);

void look_again(IoPort* port, guint delay_ms) {
  backend_data<IioIntPortData>(port)->look_timer.reset(
      g_timeout_add(delay_ms, callback<on_look_timer>, port));
}

/// What a level is read for.
enum class Occasion { Event, Arming, Look };

void tell_unreadable(const IoPort* port, Occasion occasion, const char* reason) {
  switch (occasion) {
  case Occasion::Event:
    g_warning("%sReadout failed: %s", log_prefix, reason);
    break;
  case Occasion::Arming:
    g_warning("%sCouldn't read adc value for %s\n", log_prefix, c_str_or_null(port->name));
    break;
  case Occasion::Look:
    g_warning("%sUnable to read from port %s\n", log_prefix, c_str_or_null(port->name));
    break;
  }
}

// The level for the watch. A reading that fails leaves nothing armed, so another one follows.
std::optional<guint> watched_level(IoPort* port, Occasion occasion) {
  auto* data = backend_data<IioIntPortData>(port);
  g_autoptr(GError) error = nullptr;
  if (read_level(data, data->unreadable.due() ? Failure::Reported : Failure::Known, &error)) {
    if (data->unreadable.end()) {
      g_message("%sConverter of port %d can be read again", log_prefix, port->number);
    }
    return data->cached_level;
  }
  if (data->unreadable.tell()) {
    tell_unreadable(port, occasion, error->message);
  }
  look_again(port, shortest_rest_ms);
  return std::nullopt;
}

// Whether the state was a new one.
bool report_level(IoPort* port, guint level) {
  auto* data = backend_data<IioIntPortData>(port);
  g_autoptr(GError) error = nullptr;
  const auto readout = classify(port, level, &error);
  if (!readout) {
    g_warning("%sReadout failed: %s", log_prefix, error->message);
    return false;
  }
  if (readout->state == data->last_reported) {
    return false;
  }
  io_port_trigger(port, ReportedState(readout->state));
  data->last_reported = readout->state;
  return true;
}

bool arm(IoPort* port, const SupervisedRange& range) {
  auto* data = backend_data<IioIntPortData>(port);
  const int reason = iio_threshold_arm(data->channel, range);
  if (reason == 0) {
    if (data->unarmed.end()) {
      g_message("%sConverter of port %d takes its thresholds again", log_prefix, port->number);
    }
    return true;
  }
  if (!data->unarmed.tell()) {
    return false;
  }
  if (reason == ERANGE) {
    g_warning("%sThe level of port %d is beyond its converter's thresholds, polling it every %u ms",
              log_prefix, port->number, data->limit_timeout_ms);
  } else {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(reason));
  }
  return false;
}

// A converter may tell of crossings only; one between the reading and the arming would go
// unnoticed. What is found here is dealt with in the next turn of the main loop, which others
// share.
void look_behind(IoPort* port, const SupervisedRange* range) {
  if (const auto level = watched_level(port, Occasion::Arming);
      level && supervised_range_of(port->ranges, *level) != range) {
    look_again(port, 0);
  }
}

// Has the next change told: by an event that is armed around the range that holds the level. Beyond
// a limit the converter's events cannot be trusted, between the ranges there is nothing to arm, and
// a converter may refuse; the level is polled then.
void await_change(IoPort* port, guint level) {
  auto* data = backend_data<IioIntPortData>(port);
  data->look_timer.reset();
  if (port->ranges.empty()) {
    return;
  }
  const SupervisedRange* const range = supervised_range_of(port->ranges, level);
  if (range == nullptr || beyond_limits(data, level) || !arm(port, *range)) {
    look_again(port, data->limit_timeout_ms);
    return;
  }
  look_behind(port, range);
}

void update_thresholds(IoPort* port) {
  if (port->ranges.empty()) {
    return;
  }
  if (const auto level = watched_level(port, Occasion::Arming)) {
    await_change(port, *level);
  }
}

gboolean on_look_timer(IoPort* port) {
  const PortPlace place(port);
  // This source ends by itself; what follows may start another.
  backend_data<IioIntPortData>(port)->look_timer.forget();
  if (const auto level = watched_level(port, Occasion::Look)) {
    report_level(port, *level);
    await_change(port, *level);
  }
  return G_SOURCE_REMOVE;
}

bool on_device_event(IoPort* port, gint channel) {
  const PortPlace place(port);
  auto* data = backend_data<IioIntPortData>(port);
  if (channel != iio_every_channel && std::cmp_not_equal(channel, data->channel.channel)) {
    return false;
  }
  iio_threshold_hold(data->channel);
  const auto level = watched_level(port, Occasion::Event);
  if (!level) {
    return false;
  }
  const bool news = report_level(port, *level);
  // Around what was reported: whatever the level has become since is found behind the arming.
  await_change(port, *level);
  return news;
}

void stop_interrupts(IoPort* port, IioIntPortData* data) {
  data->look_timer.reset();
  data->unreadable = Trouble();
  data->unarmed = Trouble();
  iio_threshold_disarm(data->channel);
  std::ignore = iio_event_device_unwatch(port, data->channel.device_path);
}

bool iio_int_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  if (!measured(port, data)) {
    std::ignore =
        data->pins.logic_watch.start(port, supervised_level_pin(port, data->pins), G_IO_PRI);
    stop_interrupts(port, data);
    return true;
  }
  data->pins.logic_watch.stop();
  data->last_reported = SUPERVISED_UNDEFINED;
  data->awaits_reading = true;
  iio_event_device_watch(port, data->channel.device_path, on_device_event);
  update_thresholds(port);
  return true;
}

// Setting up

bool setup_converter(IoPort* port, IioThresholdChannel& channel) {
  if (!iio_threshold_find(channel) || !iio_event_device_join(port, channel.device_path)
      || !iio_threshold_open(channel)) {
    g_warning("%sFailed to setup iio device.", log_prefix);
    return false;
  }
  iio_threshold_prepare(channel);
  return true;
}

void iio_int_close(IoPort* port) {
  auto* data = backend_data<IioIntPortData>(port);
  if (data == nullptr) {
    return;
  }
  stop_interrupts(port, data);
  iio_event_device_leave(port, data->channel.device_path);
  supervised_close_pins(data->pins);
  iio_threshold_close(data->channel);
}

bool iio_int_setup(IoPort* port, Level start) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  const bool pins_ready =
      data->adc_only || supervised_setup_pins(port, data->pins, start, pin_setup(data));
  if (pins_ready && (port->type == PORT_OUTPUT || setup_converter(port, data->channel))) {
    return true;
  }
  iio_int_close(port);
  return false;
}

bool iio_int_is_supervisable(IoPort* port) {
  const auto* data = backend_data<IioIntPortData>(port);
  return data != nullptr && !data->adc_only && supervised_is_supervisable(port);
}

bool iio_int_set_supervised(IoPort* port) {
  iio_int_set_watch(port);
  if (!io_port_input(port) && !io_port_set_direction(port, Direction::Input)) {
    return false;
  }
  const auto* data = backend_data<IioIntPortData>(port);
  std::ignore = supervised_set_control_pins(port, data->pins, pin_setup(data));
  return true;
}

Level iio_int_get_state(IoPort* port) {
  const auto* data = backend_data_ensure<IioIntPortData>(port);
  if (!measured(port, data)) {
    return supervised_pin_level(port, data->pins);
  }
  const auto readout = measure(port, nullptr);
  return readout ? supervised_level_of(readout->state) : Level::Unknown;
}

void iio_int_set_direction(IoPort* port, Direction direction) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  stop_interrupts(port, data);
  supervised_turn_pins(port, data->pins, direction, pin_setup(data));
}

// Vocabulary

using Data = IioIntPortData;

// Switches that one word turns, and no other word back.
void take_mode(Data& data, const char* value) {
  data.adc_only = data.adc_only || g_str_equal(value, "adc");
}

void take_cache(Data& data, const char* value) {
  data.use_cached_level = data.use_cached_level && !g_str_equal(value, "false");
}

void take_pullup(Data& data, const char* value) {
  data.pullup_when_supervised = data.pullup_when_supervised || g_str_equal(value, "true");
}

// Those of the port itself; the channel has its own.
constexpr std::array device_keys{
    DescriptionKey<Data>{"limit_timeout", take_unsigned<&Data::limit_timeout_ms>},
    DescriptionKey<Data>{"lower_limit", take_number<&Data::lower_limit>},
    DescriptionKey<Data>{"upper_limit", take_number<&Data::upper_limit>},
    DescriptionKey<Data>{"mode", take_mode},
    DescriptionKey<Data>{"cache_ad_value", take_cache},
    DescriptionKey<Data>{"pullup_when_supervised", take_pullup},
};
static_assert(known_keys(iio_int_device_attributes, device_keys));

void IioIntPortData::take(const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "device")) {
    take_described(device_keys, *this, key, value);
    iio_threshold_parse(channel, key, value);
  }
}

void iio_int_free(IoPort* port) {
  iio_int_close(port);
  backend_data_free<IioIntPortData>(port);
}

constexpr PortFunctions functions = supervised_table<IioIntPortData>({
    .setup = iio_int_setup,
    .is_supervisable = iio_int_is_supervisable,
    .set_supervised = iio_int_set_supervised,
    .get_supervised_readout = iio_int_get_supervised_readout,
    .get_state = iio_int_get_state,
    .set_watch = iio_int_set_watch,
    .set_direction = iio_int_set_direction,
    .free = iio_int_free,
    .close = iio_int_close,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* iio_int_setup_functions(IoPort* port) {
  return backend_attach<IioIntPortData>(port, functions);
}
