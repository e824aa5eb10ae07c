// From a GPIO line's name to its number in the kernel's sysfs interface and back. Line names are
// told by the GPIO character devices, numbers by the chips' sysfs folders; the two meet in the
// folder of the chip's device. Nothing is guessed: a wrong pin may be a door's.
//
// The kernel tells names and labels up to 31 characters, so longer ones are compared as far as
// that.
#pragma once

#include <glib.h>

#include <optional>
#include <set>
#include <string>

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
