// What the kernel shows of this machine's hardware.
#pragma once

#include <string>
#include <vector>

namespace wexctl {

inline constexpr const char* gpio_folder = "/sys/class/gpio/";
inline constexpr const char* iio_folder = "/sys/bus/iio/devices/";

/// Names in a folder that begin so, in order; none where the folder cannot be read.
std::vector<std::string> entries(const char* folder, const char* prefix);

/// The first line of a file; empty where it cannot be read.
std::string first_line(const std::string& path);

} // namespace wexctl
