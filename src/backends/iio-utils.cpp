#include "backends/iio-utils.h"

#include "platform/handles.h"
#include "platform/kernel-parts.h"
#include "platform/log.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace {

constexpr const char* devices_folder = "/sys/bus/iio/devices/";
/// Names of devices and triggers, by type number.
constexpr std::array<const char*, 2> prefixes{"iio:device", "trigger"};

std::optional<int> number_after(const char* entry, const char* prefix) {
  int number = 0;
  const std::string format = std::string(prefix) + "%d";
  errno = 0;
  if (sscanf(entry, format.c_str(), &number) == 1) { // NOLINT: a constant prefix and one number
    return number;
  }
  g_warning("%sFailed to find device number for device %s: %s", log_prefix, entry,
            g_strerror(errno));
  return std::nullopt;
}

bool device_has_name(const char* prefix, int number, const char* name) {
  std::array<char, 40> path{};
  g_snprintf(path.data(), path.size(), "%s%s%d/name", devices_folder, prefix, number);
  g_autofree char* text = nullptr;
  iio_read_sysfs(path.data(), &text);
  return text != nullptr && g_str_equal(text, name);
}

} // namespace

void iio_read_sysfs(const char* path, char** contents) {
  *contents = nullptr;
  g_autoptr(GError) error = nullptr;
  if (!g_file_get_contents(path, contents, nullptr, &error)) {
    g_warning("%sFailed to read sysfs path '%s': %s", log_prefix, path, error->message);
    return;
  }
  if (char* const line_break = strrchr(*contents, '\n')) {
    *line_break = '\0';
  }
}

void iio_write_sysfs(const std::string& path, const char* text) {
  const int fd = open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) {
    g_warning("%sFailed to open sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
    return;
  }
  errno = 0;
  if (std::cmp_not_equal(write(fd, text, strlen(text)), strlen(text))) {
    g_warning("%sFailed to write sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
  }
  if (close(fd) != 0) {
    g_warning("%sFailed to close sysfs path '%s': %s", log_prefix, path.c_str(), g_strerror(errno));
  }
}

int iio_get_device_number_with_type(const char* name, int type) {
  if (type < 0 || static_cast<gsize>(type) >= prefixes.size()) {
    g_warning("%sUnknown device_type: %d", log_prefix, type);
    return -1;
  }
  g_autoptr(GError) error = nullptr;
  g_autoptr(GDir) dir = g_dir_open(devices_folder, 0, &error);
  if (dir == nullptr) {
    remark_missing_kernel_part(iio_kernel_parts);
    g_warning("%sFailed to open sysfs path: %s\n", log_prefix, devices_folder);
    return -1;
  }
  const char* const prefix = prefixes[static_cast<gsize>(type)];
  while (const gchar* entry = g_dir_read_name(dir)) {
    if (!g_str_has_prefix(entry, prefix)) {
      continue;
    }
    const auto number = number_after(entry, prefix);
    if (number && device_has_name(prefix, *number, name)) {
      return *number;
    }
  }
  return -1;
}

int iio_get_device_number(const char* name) {
  return iio_get_device_number_with_type(name, 0);
}

std::string iio_device_folder(int number) {
  return std::string(devices_folder) + prefixes[0] + std::to_string(number) + '/';
}

std::string iio_device_node(int number) {
  return std::string("/dev/") + prefixes[0] + std::to_string(number);
}

std::optional<IioScanType> iio_parse_scan_type(const char* text) {
  IioScanType type{.endianness = '\0', .sign = '\0'};
  if (sscanf(text, "%ce:%c%u/%u>>%u", &type.endianness, &type.sign, &type.bits, &type.size,
             &type.shift)
      < 1) {
    return std::nullopt;
  }
  return type;
}

guint32 iio_decode_sample(const IioScanType& type, std::span<const guint8> sample) {
  if (sample.empty() || sample.size() > 4) {
    return 0;
  }
  const bool big_endian = type.endianness == 'b';
  guint32 value = 0;
  for (gsize i = 0; i < sample.size(); i++) {
    value = value << 8U | sample[big_endian ? i : sample.size() - 1 - i];
  }
  value = iio_shift_right(value, type.shift);
  if (type.bits < 32) {
    const guint32 mask = (guint32{1} << type.bits) - 1;
    value &= mask;
    const bool negative = type.bits > 0 && (value >> (type.bits - 1)) != 0;
    if (type.sign == 's' && negative) {
      value |= ~mask;
    }
  }
  return value;
}
