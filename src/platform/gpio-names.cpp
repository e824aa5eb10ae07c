#include "platform/gpio-names.h"

#include "platform/handles.h"
#include "platform/log.h"
#include "platform/numbers.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <functional>
#include <vector>

namespace {

constexpr const char* class_folder = "/sys/class/gpio";
/// What the kernel tells of a line's name or a chip's label at most.
constexpr gsize told_length = GPIO_MAX_NAME_SIZE - 1;

// A chip as the character device shows it, with the folders of its own device and of its parent.
struct Chip {
  std::string path;
  std::string label;
  guint lines;
  std::string device;
  std::string parent;
};

// A chip as the sysfs class shows it.
struct ChipClass {
  guint base;
  guint lines;
  std::string label;
  std::string device;
};

void for_each_entry(const char* folder, const char* prefix,
                    const std::function<void(const std::string&)>& use) {
  g_autoptr(GDir) dir = g_dir_open(folder, 0, nullptr);
  if (dir == nullptr) {
    return;
  }
  std::set<std::string> names;
  while (const gchar* name = g_dir_read_name(dir)) {
    if (g_str_has_prefix(name, prefix)) {
      names.insert(name);
    }
  }
  for (const auto& name : names) {
    use(name);
  }
}

std::string read_line(const std::string& path) {
  g_autofree gchar* text = nullptr;
  if (!g_file_get_contents(path.c_str(), &text, nullptr, nullptr)) {
    return {};
  }
  return g_strchomp(text);
}

guint read_number(const std::string& path) {
  return unsigned_of<guint>(read_line(path).c_str());
}

std::string real_path(const std::string& path) {
  g_autofree gchar* resolved = realpath(path.c_str(), nullptr);
  return resolved != nullptr ? resolved : "";
}

std::string parent_folder(const std::string& path) {
  g_autofree gchar* parent = g_path_get_dirname(path.c_str());
  return parent;
}

std::vector<ChipClass> chip_classes() {
  std::vector<ChipClass> classes;
  for_each_entry(class_folder, "gpiochip", [&](const std::string& name) {
    const std::string folder = std::string(class_folder) + '/' + name;
    classes.push_back({.base = read_number(folder + "/base"),
                       .lines = read_number(folder + "/ngpio"),
                       .label = read_line(folder + "/label"),
                       .device = real_path(folder + "/device")});
  });
  return classes;
}

std::string device_folder(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    return {};
  }
  return real_path("/sys/dev/char/" + std::to_string(major(status.st_rdev)) + ':'
                   + std::to_string(minor(status.st_rdev)));
}

std::vector<Chip> chips() {
  std::vector<Chip> found;
  for_each_entry("/dev", "gpiochip", [&](const std::string& name) {
    const std::string path = "/dev/" + name;
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    gpiochip_info info{};
    if (!fd || ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) != 0) {
      return;
    }
    const std::string device = device_folder(fd.get());
    found.push_back({.path = path,
                     .label = std::string(info.label, strnlen(info.label, sizeof info.label)),
                     .lines = info.lines,
                     .device = device,
                     .parent = parent_folder(device)});
  });
  return found;
}

// The class entry hangs off the parent of the chip's device or, where that has none, off the device
// itself. Several banks of one parent hang off the same folder: what else is known of them tells
// some apart, and others nothing does.
bool may_be(const ChipClass& entry, const Chip& chip) {
  if (chip.device.empty()) {
    return false;
  }
  return entry.device == chip.device
         || (entry.device == chip.parent && entry.lines == chip.lines
             && gpio_told_as(entry.label, chip.label));
}

// Calls `use` with every chip and each number base that may be its own.
void for_each_chip(const std::function<void(const Chip&, guint base)>& use) {
  const auto classes = chip_classes();
  for (const auto& chip : chips()) {
    for (const auto& entry : classes) {
      if (may_be(entry, chip)) {
        use(chip, entry.base);
      }
    }
  }
}

// What the chip's driver calls the line; empty where it has no name.
std::string line_name(int fd, guint offset) {
  gpio_v2_line_info info{};
  info.offset = offset;
  if (ioctl(fd, GPIO_V2_GET_LINEINFO_IOCTL, &info) != 0) {
    return {};
  }
  return {info.name, strnlen(info.name, sizeof info.name)};
}

// Offsets of the lines of a chip that are told by that name.
std::vector<guint> offsets_of_name(const Chip& chip, const std::string& name) {
  std::vector<guint> offsets;
  // Lines without a name have the empty one in the kernel's answer; nobody means those.
  if (name.empty()) {
    return offsets;
  }
  const UniqueFd fd(open(chip.path.c_str(), O_RDONLY | O_CLOEXEC));
  for (guint offset = 0; fd && offset < chip.lines; offset++) {
    if (gpio_told_as(name, line_name(fd.get(), offset))) {
      offsets.push_back(offset);
    }
  }
  return offsets;
}

} // namespace

bool gpio_chips_here() {
  bool found = false;
  for_each_entry("/dev", "gpiochip", [&](const std::string& /*name*/) { found = true; });
  return found;
}

bool gpio_told_as(const std::string& text, const std::string& told) {
  return text.compare(0, told_length, told) == 0;
}

std::set<guint> gpio_numbers_of_name(const std::string& name) {
  std::set<guint> numbers;
  for_each_chip([&](const Chip& chip, guint base) {
    for (const guint offset : offsets_of_name(chip, name)) {
      numbers.insert(base + offset);
    }
  });
  return numbers;
}

std::optional<guint> gpio_number_of_name(const std::string& name) {
  const auto numbers = gpio_numbers_of_name(name);
  if (numbers.size() == 1) {
    return *numbers.begin();
  }
  std::string all;
  for (const guint number : numbers) {
    all += (all.empty() ? "" : " or ") + std::to_string(number);
  }
  if (!all.empty()) {
    g_warning("%sLine '%s' may be pin %s: describe the one that is meant by number", log_prefix,
              name.c_str(), all.c_str());
  }
  errno = all.empty() ? ENODEV : ENOTUNIQ;
  return std::nullopt;
}

std::set<std::string> gpio_names_of_number(guint number) {
  std::set<std::string> names;
  for_each_chip([&](const Chip& chip, guint base) {
    if (number < base || number - base >= chip.lines) {
      return;
    }
    const UniqueFd fd(open(chip.path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto name = fd ? line_name(fd.get(), number - base) : std::string();
    if (!name.empty()) {
      names.insert(name);
    }
  });
  return names;
}

std::vector<GpioLine> gpio_lines_of_name(const std::string& name) {
  std::vector<GpioLine> lines;
  for (const auto& chip : chips()) {
    for (const guint offset : offsets_of_name(chip, name)) {
      lines.push_back({.chip = chip.path, .offset = offset});
    }
  }
  return lines;
}

std::vector<GpioLine> gpio_lines_of_number(guint number) {
  std::vector<GpioLine> lines;
  for_each_chip([&](const Chip& chip, guint base) {
    if (number >= base && number - base < chip.lines) {
      lines.push_back({.chip = chip.path, .offset = number - base});
    }
  });
  return lines;
}
