// From a GPIO line's name to its number in the kernel's sysfs interface and back, and from either
// to the line's place on its chip. Line names are told by the GPIO character devices, numbers by
// the chips' sysfs folders; the two meet in the folder of the chip's device. Nothing is guessed: a
// wrong pin may be a door's. The kernel's debugging files list numbers as well, but promise nothing
// and are root's alone, so they are left aside.
//
// The kernel tells names and labels up to 31 characters, so longer ones are compared as far as
// that.
#pragma once

#include <glib.h>

#include <optional>
#include <set>
#include <string>
#include <vector>

/// A line as its chip's character device has it.
struct GpioLine {
  std::string chip;
  guint offset;
};

/// Whether there is any chip that could have a line.
[[nodiscard]] bool gpio_chips_here();

/// Whether what the kernel tells of a text, as far as it goes, is that of `text`.
[[nodiscard]] bool gpio_told_as(const std::string& text, const std::string& told);

/// Every number that a line of that name may have. More than one: several lines are called so, or
/// one is on a chip that cannot be told from another.
std::set<guint> gpio_numbers_of_name(const std::string& name);

/// The number of the only line of that name. Nothing, with errno: ENODEV when there is none;
/// ENOTUNIQ, after a warning that names all of them, when there may be several.
[[nodiscard]] std::optional<guint> gpio_number_of_name(const std::string& name);

/// Every name that the line of that number may have, as far as the kernel tells it.
std::set<std::string> gpio_names_of_number(guint number);

/// Every line of that name, over all chips.
[[nodiscard]] std::vector<GpioLine> gpio_lines_of_name(const std::string& name);

/// Every line that may have that number; none where no sysfs folder tells the chips' numbers.
[[nodiscard]] std::vector<GpioLine> gpio_lines_of_number(guint number);
