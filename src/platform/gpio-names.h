// From a GPIO line's name to its number in the kernel's sysfs interface and back. Line names are
// told by the GPIO character devices, numbers by the chips' sysfs folders.
#pragma once

#include <glib.h>

#include <optional>
#include <string>

/// The number of the first line of that name, or nothing.
std::optional<guint> gpio_number_of_name(const std::string& name);

/// The name of the line of that number; nothing when it has none or cannot be found.
std::optional<std::string> gpio_name_of_number(guint number);
