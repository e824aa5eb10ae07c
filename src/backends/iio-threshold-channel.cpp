#include "backends/iio-threshold-channel.h"

#include "backends/description-keys.h"
#include "backends/iio-utils.h"
#include "backends/supervised-iio-interrupt-backend.h"
#include "platform/log.h"
#include "platform/numbers.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Channel = IioThresholdChannel;

constexpr double us_per_s = 1000000.0;

constexpr std::array keys{
    DescriptionKey<Channel>{"driver", take_text<&Channel::driver>},
    DescriptionKey<Channel>{"channel_name", take_text<&Channel::channel_name>},
    DescriptionKey<Channel>{"chan_extend_name", take_text<&Channel::chan_extend_name>},
    DescriptionKey<Channel>{"shared_samplefreq", take_text<&Channel::shared_samplefreq>},
    DescriptionKey<Channel>{"shared_thresh_either_period",
                            take_text<&Channel::shared_thresh_either_period>},
    DescriptionKey<Channel>{"channel", take_unsigned<&Channel::channel>},
    DescriptionKey<Channel>{"hysteresis", take_unsigned<&Channel::hysteresis>},
    DescriptionKey<Channel>{"bitshift", take_number<&Channel::bitshift>},
    DescriptionKey<Channel>{"integration_time", take_number<&Channel::integration_time_us>},
    DescriptionKey<Channel>{"one_threshold", take_switch<&Channel::one_threshold>},
};
static_assert(known_keys(iio_int_device_attributes, keys));

// "in_<channel>[_<extension>]".
std::string full_name(const Channel& channel) {
  std::string name =
      "in_" + channel.channel_name.value_or("voltage" + std::to_string(channel.channel));
  if (channel.chan_extend_name) {
    name += '_' + *channel.chan_extend_name;
  }
  return name;
}

std::string attribute_name(const Channel& channel, const char* attribute) {
  return full_name(channel) + '_' + attribute;
}

std::string channel_path(const Channel& channel, const char* attribute) {
  return iio_device_folder(channel.device_number) + attribute_name(channel, attribute);
}

std::string event_path(const Channel& channel, const char* attribute) {
  return iio_device_folder(channel.device_number) + "events/" + attribute_name(channel, attribute);
}

guint bitshift(const Channel& channel) {
  return channel.bitshift < 0 ? 0 : static_cast<guint>(channel.bitshift);
}

bool open_event_file(const Channel& channel, const char* attribute, UniqueFd& fd) {
  const std::string path = event_path(channel, attribute);
  fd.reset(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd) {
    g_warning("%sFailed to open sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
    return false;
  }
  return true;
}

// 0, or the reason of a failure. The kernel takes each write as the whole value. A plain file or a
// pipe in the place of the attribute shows the same: no tail of a longer number, and no complaint
// about where to write. What is beyond 32 bits wraps, as the kernel is
// told "%d".
int write_number(const UniqueFd& fd, gint64 number) {
  if (!fd) {
    return 0;
  }
  const std::string text = std::to_string(static_cast<gint>(number));
  lseek(fd.get(), 0, SEEK_SET);
  const int reason = write(fd.get(), text.data(), text.size()) < 0 ? errno : 0;
  [[maybe_unused]] const int cut = ftruncate(fd.get(), static_cast<off_t>(text.size()));
  return reason;
}

void write_or_warn(const UniqueFd& fd, gint number) {
  if (const int reason = write_number(fd, number); reason != 0) {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(reason));
  }
}

// The files that switch the channel's events.
std::vector<const UniqueFd*> switches(const Channel& channel) {
  if (channel.either_enable) {
    return {&channel.either_enable};
  }
  return {&channel.rising_enable, &channel.falling_enable};
}

enum class Events { Off, On };

// 0, or the reason of a failure; what follows one is switched all the same.
int switch_events(const Channel& channel, Events events) {
  int reason = 0;
  for (const auto* file : switches(channel)) {
    const int failure = write_number(*file, events == Events::On ? 1 : 0);
    reason = reason != 0 ? reason : failure;
  }
  return reason;
}

// Thresholds

struct Threshold {
  const UniqueFd& file;
  /// Where the converter's scale ends on this side.
  std::optional<gint>& end;
  bool rising;
};

Threshold rising_threshold(Channel& channel) {
  return {.file = channel.rising_value, .end = channel.rising_end, .rising = true};
}

Threshold falling_threshold(Channel& channel) {
  return {.file = channel.falling_value, .end = channel.falling_end, .rising = false};
}

bool means_off_scale(int reason) {
  return reason == EINVAL || reason == ERANGE || reason == EDOM;
}

// The value nearest to `refused` that the converter takes; it takes `taken`. Left written.
gint nearest_taken(const UniqueFd& file, gint64 taken, gint64 refused) {
  while (std::abs(refused - taken) > 1) {
    const gint64 middle = taken + (refused - taken) / 2;
    (write_number(file, middle) == 0 ? taken : refused) = middle;
  }
  write_number(file, taken);
  return static_cast<gint>(taken);
}

// Finds the end of the scale, between the level and what was refused.
int place_at_end(const Channel& channel, const Threshold& threshold, gint64 wanted, gint64 level) {
  if (write_number(threshold.file, level) != 0) {
    return ERANGE;
  }
  const gint64 farthest = std::clamp<gint64>(wanted, G_MININT, G_MAXINT);
  threshold.end = nearest_taken(threshold.file, level, farthest);
  g_warning("%sThreshold %s of %s %s is beyond its scale, using %d", log_prefix,
            std::to_string(wanted).c_str(), channel.driver.value_or("").c_str(),
            full_name(channel).c_str(), *threshold.end);
  return 0;
}

// Puts a threshold where it is wanted, or on the end of the converter's scale when it is beyond
// that. 0, or the reason of a failure: ERANGE when the level is beyond that end as well.
int place(const Channel& channel, const Threshold& threshold, gint64 wanted, gint64 level) {
  if (!threshold.end) {
    const int reason = write_number(threshold.file, wanted);
    return means_off_scale(reason) ? place_at_end(channel, threshold, wanted, level) : reason;
  }
  const gint64 end = *threshold.end;
  const gint64 value = threshold.rising ? std::min(wanted, end) : std::max(wanted, end);
  if (threshold.rising ? value < level : value > level) {
    return ERANGE;
  }
  const int reason = write_number(threshold.file, value);
  if (means_off_scale(reason)) {
    // The scale has changed; it is measured anew next time.
    threshold.end.reset();
    return ERANGE;
  }
  return reason;
}

// Levels are told without the low bits that do not count; the device's own counts have them.
gint64 counts(const Channel& channel, gint64 level) {
  const guint shift = bitshift(channel);
  return shift < 32 ? level * (gint64{1} << shift) : 0;
}

int arm_both(Channel& channel, const SupervisedRange& range) {
  const gint64 upper = gint64{range.upper} + channel.hysteresis;
  const gint64 lower = gint64{range.lower} - channel.hysteresis;
  const gint64 now = channel.last_raw;
  int reason = place(channel, rising_threshold(channel), counts(channel, upper), now);
  if (reason == 0) {
    reason = place(channel, falling_threshold(channel), counts(channel, lower), now);
  }
  return reason != 0 ? reason : switch_events(channel, Events::On);
}

// Its thresholds are told as levels, without the shift.
int arm_one(Channel& channel, const SupervisedRange& range) {
  const bool rising = range.lower == 0;
  const gint64 wanted =
      rising ? gint64{range.upper} + channel.hysteresis : gint64{range.lower} - channel.hysteresis;
  const auto threshold = rising ? rising_threshold(channel) : falling_threshold(channel);
  const gint64 now = iio_shift_right(channel.last_raw, bitshift(channel));
  const int reason = place(channel, threshold, wanted, now);
  if (reason != 0 || channel.either_enable) {
    return reason != 0 ? reason : write_number(channel.either_enable, 1);
  }
  return write_number(rising ? channel.rising_enable : channel.falling_enable, 1);
}

// Settings of the whole device, told as the description has them; a device without one goes on.
void write_device_setting(const Channel& channel, const char* file, const char* text) {
  const std::string path = iio_device_folder(channel.device_number) + file;
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

void write_device_settings(const Channel& channel) {
  if (channel.shared_samplefreq) {
    constexpr const char* shared = "in_voltage_sampling_frequency";
    const std::string path = iio_device_folder(channel.device_number) + shared;
    write_device_setting(
        channel, g_file_test(path.c_str(), G_FILE_TEST_EXISTS) ? shared : "sampling_frequency",
        channel.shared_samplefreq->c_str());
  }
  if (channel.shared_thresh_either_period) {
    write_device_setting(channel, "events/in_voltage_thresh_either_period",
                         channel.shared_thresh_either_period->c_str());
  }
  if (channel.integration_time_us > 0) {
    const auto seconds = static_cast<double>(channel.integration_time_us) / us_per_s;
    g_autofree gchar* text = g_strdup_printf("%f", seconds);
    write_device_setting(channel, "in_proximity_integration_time", text);
  }
}

} // namespace

void iio_threshold_parse(IioThresholdChannel& channel, const char* key, const char* value) {
  take_described(keys, channel, key, value);
}

bool iio_threshold_find(IioThresholdChannel& channel) {
  channel.device_number = iio_get_device_number(channel.driver ? channel.driver->c_str() : "");
  if (channel.device_number == -1) {
    g_warning("%sFailed to find device name", log_prefix);
    g_warning("%sFailed to setup sysfs", log_prefix);
    return false;
  }
  channel.device_path = iio_device_node(channel.device_number);
  return true;
}

bool iio_threshold_open(IioThresholdChannel& channel) {
  if (!open_event_file(channel, "thresh_rising_value", channel.rising_value)
      || !open_event_file(channel, "thresh_falling_value", channel.falling_value)) {
    return false;
  }
  if (g_file_test(event_path(channel, "thresh_rising_en").c_str(), G_FILE_TEST_EXISTS)) {
    return open_event_file(channel, "thresh_rising_en", channel.rising_enable)
           && open_event_file(channel, "thresh_falling_en", channel.falling_enable);
  }
  return open_event_file(channel, "thresh_either_en", channel.either_enable);
}

void iio_threshold_prepare(const IioThresholdChannel& channel) {
  write_device_settings(channel);
  write_or_warn(channel.falling_value, 0);
  write_or_warn(channel.rising_value, 1);
  iio_threshold_disarm(channel);
}

std::optional<guint32> iio_threshold_read(IioThresholdChannel& channel, Failure failure,
                                          GError** error) {
  const std::string path = channel_path(channel, "raw");
  g_autofree char* text = nullptr;
  g_autoptr(GError) reason = nullptr;
  if (!g_file_get_contents(path.c_str(), &text, nullptr, &reason)) {
    if (failure == Failure::Reported) {
      g_warning("%sFailed to read sysfs path '%s': %s", log_prefix, path.c_str(), reason->message);
    }
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC,
                "Failed to read '%s'", path.c_str());
    return std::nullopt;
  }
  channel.last_raw = number_of<guint32>(text, 0);
  return iio_shift_right(channel.last_raw, bitshift(channel));
}

int iio_threshold_arm(IioThresholdChannel& channel, const SupervisedRange& range) {
  const int reason = channel.one_threshold ? arm_one(channel, range) : arm_both(channel, range);
  if (reason != 0) {
    switch_events(channel, Events::Off);
  }
  return reason;
}

void iio_threshold_hold(const IioThresholdChannel& channel) {
  switch_events(channel, Events::Off);
}

void iio_threshold_disarm(const IioThresholdChannel& channel) {
  for (const auto* file : switches(channel)) {
    write_or_warn(*file, 0);
  }
}

void iio_threshold_close(IioThresholdChannel& channel) {
  for (auto* fd : {&channel.rising_value, &channel.falling_value, &channel.rising_enable,
                   &channel.falling_enable, &channel.either_enable}) {
    fd->reset();
  }
}
