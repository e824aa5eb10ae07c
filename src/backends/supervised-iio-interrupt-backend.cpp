#include "backends/supervised-iio-interrupt-backend.h"

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "backends/iio-event-device.h"
#include "backends/iio-threshold-channel.h"
#include "backends/supervised-pins.h"
#include "platform/handles.h"
#include "platform/log.h"

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
  SourceId limit_timer;
  bool use_cached_level = true;
  bool pullup_when_supervised = false;
  // Also looked at by action-sequence threads.
  std::atomic<guint32> cached_level{0};
  guint last_reported = SUPERVISED_OPEN;
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

bool read_level(IioIntPortData* data, GError** error) {
  const auto level = iio_threshold_read(data->channel, error);
  if (level) {
    data->cached_level = *level;
  }
  return level.has_value();
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

// Watching

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
  iio_threshold_arm(data->channel, *range);
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

void on_device_event(IoPort* port, gint channel) {
  auto* data = backend_data<IioIntPortData>(port);
  if (static_cast<guint64>(channel) != data->channel.channel) {
    return;
  }
  iio_threshold_disarm(data->channel);
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
  iio_threshold_disarm(data->channel);
  iio_event_device_unwatch(port, data->channel.device_path);
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
  iio_event_device_watch(port, data->channel.device_path, on_device_event);
  update_thresholds(port);
  return TRUE;
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

gboolean iio_int_setup(IoPort* port, gboolean state) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  const bool pins_ready =
      data->adc_only || supervised_setup_pins(port, data->pins, state, pin_setup(data));
  if (pins_ready && (port->type == PORT_OUTPUT || setup_converter(port, data->channel))) {
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

void iio_int_set_direction(IoPort* port, gboolean input) {
  auto* data = backend_data_ensure<IioIntPortData>(port);
  stop_interrupts(port, data);
  supervised_turn_pins(port, data->pins, input, pin_setup(data));
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
