#include "platform/gpio-names.h"

#include "platform/handles.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>

#include <functional>
#include <map>
#include <set>
#include <vector>

namespace {

constexpr const char* class_folder = "/sys/class/gpio";
constexpr const char* bus_folder = "/sys/bus/gpio/devices";

// A chip as the character device shows it, with its number base once that is known.
struct Chip {
  std::string device;
  std::string label;
  guint lines;
  std::string parent;
  std::optional<guint> base = std::nullopt;
};

// A chip as the sysfs class shows it.
struct ChipClass {
  guint base;
  guint lines;
  std::string label;
  std::string parent;
  std::string own;
};

void for_each_entry(const char* folder, const char* prefix,
                    const std::function<void(const std::string&)>& use) {
  g_autoptr(GDir) dir = g_dir_open(folder, 0, nullptr);
  if (dir == nullptr) {
    return;
  }
  // In order of name, so that chips pair up the same way on every start.
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
  return static_cast<guint>(g_ascii_strtoull(read_line(path).c_str(), nullptr, 10));
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
                       .parent = real_path(folder + "/device"),
                       .own = folder});
  });
  return classes;
}

std::vector<Chip> chips() {
  std::vector<Chip> found;
  for_each_entry("/dev", "gpiochip", [&](const std::string& name) {
    const std::string device = "/dev/" + name;
    const UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    gpiochip_info info{};
    if (!fd || ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) != 0) {
      return;
    }
    found.push_back({.device = device,
                     .label = std::string(info.label, strnlen(info.label, sizeof info.label)),
                     .lines = info.lines,
                     .parent = real_path(std::string(bus_folder) + '/' + name)});
  });
  return found;
}

// The class entry hangs off the chip's device or, when the chip has no parent, off the chip itself.
bool same_chip(const Chip& chip, const ChipClass& entry) {
  const bool same_device = entry.parent.empty() || chip.parent.empty()
                           || entry.parent == chip.parent
                           || entry.parent == parent_folder(chip.parent);
  return same_device && entry.lines == chip.lines && entry.label == chip.label;
}

// Every chip whose number base can be told. Chips that look the same pair up in order of base.
std::vector<Chip> numbered_chips() {
  auto classes = chip_classes();
  auto found = chips();
  for (auto& chip : found) {
    for (auto entry = classes.begin(); entry != classes.end(); ++entry) {
      if (same_chip(chip, *entry)) {
        chip.base = entry->base;
        classes.erase(entry);
        break;
      }
    }
  }
  std::erase_if(found, [](const Chip& chip) { return !chip.base; });
  return found;
}

std::string line_name(int fd, guint offset) {
  gpio_v2_line_info info{};
  info.offset = offset;
  if (ioctl(fd, GPIO_V2_GET_LINEINFO_IOCTL, &info) != 0) {
    return {};
  }
  return {info.name, strnlen(info.name, sizeof info.name)};
}

} // namespace

std::optional<guint> gpio_number_of_name(const std::string& name) {
  // Lines without a name have the empty one in the kernel's answer; nobody means those.
  if (name.empty()) {
    return std::nullopt;
  }
  for (const auto& chip : numbered_chips()) {
    const UniqueFd fd(open(chip.device.c_str(), O_RDONLY | O_CLOEXEC));
    for (guint offset = 0; fd && offset < chip.lines; offset++) {
      if (line_name(fd.get(), offset) == name) {
        return *chip.base + offset;
      }
    }
  }
  return std::nullopt;
}

std::optional<std::string> gpio_name_of_number(guint number) {
  for (const auto& chip : numbered_chips()) {
    if (number < *chip.base || number - *chip.base >= chip.lines) {
      continue;
    }
    const UniqueFd fd(open(chip.device.c_str(), O_RDONLY | O_CLOEXEC));
    const auto name = fd ? line_name(fd.get(), number - *chip.base) : std::string();
    if (!name.empty()) {
      return name;
    }
  }
  return std::nullopt;
}
