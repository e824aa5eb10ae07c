#include "backends/iio-threshold-channel.h"

#include "backends/description-keys.h"
#include "backends/iio-utils.h"
#include "platform/log.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

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

// "in_<channel>[_<extension>]_<attribute>".
std::string attribute_name(const Channel& channel, const char* attribute) {
  std::string name =
      "in_" + channel.channel_name.value_or("voltage" + std::to_string(channel.channel)) + '_';
  if (channel.chan_extend_name) {
    name += *channel.chan_extend_name + '_';
  }
  return name + attribute;
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

// The kernel takes each write as the whole value. A plain file or a pipe in the place of the
// attribute shows the same: no tail of a longer number, and no complaint about where to write.
void write_number(const UniqueFd& fd, gint number) {
  if (!fd) {
    return;
  }
  const std::string text = std::to_string(number);
  lseek(fd.get(), 0, SEEK_SET);
  if (write(fd.get(), text.data(), text.size()) < 0) {
    g_warning("%sFailed to write sysfs: %s", log_prefix, g_strerror(errno));
  }
  [[maybe_unused]] const int cut = ftruncate(fd.get(), static_cast<off_t>(text.size()));
}

void enable_events(const Channel& channel, bool enable) {
  if (channel.either_enable) {
    write_number(channel.either_enable, enable ? 1 : 0);
  } else {
    write_number(channel.rising_enable, enable ? 1 : 0);
    write_number(channel.falling_enable, enable ? 1 : 0);
  }
}

// The device's own counts; what is below 0 or beyond 32 bits wraps, as the kernel is told "%d".
gint shifted_threshold(const Channel& channel, guint32 level) {
  const guint shift = bitshift(channel);
  return static_cast<gint>(shift < 32 ? level << shift : 0);
}

void arm_one_threshold(const Channel& channel, const SupervisedRange& range) {
  const bool rising = range.lower == 0;
  if (rising) {
    write_number(channel.rising_value, static_cast<gint>(range.upper + channel.hysteresis));
  } else {
    write_number(channel.falling_value, static_cast<gint>(range.lower - channel.hysteresis));
  }
  if (channel.either_enable) {
    write_number(channel.either_enable, 1);
  } else {
    write_number(rising ? channel.rising_enable : channel.falling_enable, 1);
  }
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
  write_number(channel.falling_value, 0);
  write_number(channel.rising_value, 1);
  enable_events(channel, false);
}

std::optional<guint32> iio_threshold_read(const IioThresholdChannel& channel, GError** error) {
  const std::string path = channel_path(channel, "raw");
  g_autofree char* text = nullptr;
  iio_read_sysfs(path.c_str(), &text);
  if (text == nullptr) {
    g_set_error(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC,
                "Failed to read '%s'", path.c_str());
    return std::nullopt;
  }
  const auto raw = static_cast<guint32>(strtol(text, nullptr, 0));
  return iio_shift_right(raw, bitshift(channel));
}

void iio_threshold_arm(const IioThresholdChannel& channel, const SupervisedRange& range) {
  if (channel.one_threshold) {
    arm_one_threshold(channel, range);
    return;
  }
  write_number(channel.rising_value, shifted_threshold(channel, range.upper + channel.hysteresis));
  write_number(channel.falling_value, shifted_threshold(channel, range.lower - channel.hysteresis));
  enable_events(channel, true);
}

void iio_threshold_disarm(const IioThresholdChannel& channel) {
  enable_events(channel, false);
}

void iio_threshold_close(IioThresholdChannel& channel) {
  for (auto* fd : {&channel.rising_value, &channel.falling_value, &channel.rising_enable,
                   &channel.falling_enable, &channel.either_enable}) {
    fd->reset();
  }
}
