// The kernel's Industrial I/O subsystem: its sysfs files and the form of its samples.
#pragma once

#include <glib.h>

#include <optional>
#include <span>
#include <string>

/// Reads a sysfs file whole, cut at its last line break. `contents` receives a new string (g_free),
/// or NULL after a warning.
void iio_read_sysfs(const char* path, char** contents);

/// Writes `text` to a sysfs file; failures are logged only.
void iio_write_sysfs(const std::string& path, const char* text);

/// Number of the device (type 0) or trigger (type 1) of that IIO name, or -1.
int iio_get_device_number_with_type(const char* name, int type);

/// Number of the device of that IIO name, or -1.
int iio_get_device_number(const char* name);

/// "/sys/bus/iio/devices/iio:device<number>/".
[[nodiscard]] std::string iio_device_folder(int number);

/// "/dev/iio:device<number>".
[[nodiscard]] std::string iio_device_node(int number);

/// How a sample lies in the buffer, e.g. "le:u12/16>>4".
struct IioScanType {
  char endianness = 'l';
  char sign = 'u';
  /// Significant bits.
  guint bits = 0;
  /// Bits of storage.
  guint size = 0;
  guint shift = 0;
};

/// Parses a scan type; nothing when not even its first field is there. Later fields that are
/// missing stay 0.
[[nodiscard]] std::optional<IioScanType> iio_parse_scan_type(const char* text);

/// The value of a stored sample of 1 to 4 bytes; 0 for any other size.
guint32 iio_decode_sample(const IioScanType& type, std::span<const guint8> sample);

/// `value` shifted right; 0 when nothing of it is left.
constexpr guint32 iio_shift_right(guint32 value, guint shift) {
  return shift < 32 ? value >> shift : 0;
}
