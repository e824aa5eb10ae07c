#include "wexctl/here.h"

#include "description/reader.h"
#include "platform/gpio-names.h"
#include "platform/numbers.h"
#include "platform/regular-file.h"
#include "platform/ugpio-extras.h"
#include "wexctl/machine.h"

#include <fmt/format.h>
#include <glib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <tuple>

namespace wexctl {

namespace {

// What is wrong with a file for whoever opens it this way; nothing if it can be.
std::string unusable(const std::string& path, int mode) {
  return access(path.c_str(), mode) == 0 ? "" : fmt::format("{}: {}", path, g_strerror(errno));
}

bool chip_has(const std::string& chip, guint64 pin) {
  const std::string folder = gpio_folder + chip;
  const auto base = g_ascii_strtoull(first_line(folder + "/base").c_str(), nullptr, 10);
  const auto lines = g_ascii_strtoull(first_line(folder + "/ngpio").c_str(), nullptr, 10);
  return pin >= base && pin - base < lines;
}

// Where pins are requested on the character devices of their chips, those are opened to be read.
std::string numbered_line_trouble(guint number) {
  const auto lines = gpio_lines_of_number(number);
  if (lines.size() == 1) {
    return unusable(lines.front().chip, R_OK);
  }
  return gpio_chips_here()
             ? fmt::format("no chip tells whether it has pin {}: describe it by alias", number)
             : fmt::format("no GPIO chip has pin {}", number);
}

// One that is taken has its files; any other is asked for, which takes its chip.
std::string pin_trouble(const std::string& number) {
  const auto pin = unsigned_of<guint>(number.c_str());
  if (!ugpio_goes_by_sysfs(nullptr, pin)) {
    return numbered_line_trouble(pin);
  }
  const std::string folder = gpio_folder + ("gpio" + number);
  if (g_file_test(folder.c_str(), G_FILE_TEST_IS_DIR)) {
    return unusable(folder + "/value", R_OK | W_OK);
  }
  const auto chips = entries(gpio_folder, "gpiochip");
  if (std::ranges::none_of(chips, [pin](const auto& chip) { return chip_has(chip, pin); })) {
    return fmt::format("no GPIO chip has pin {}", number);
  }
  return unusable(std::string(gpio_folder) + "export", W_OK);
}

// What is wrong with a name that so many lines may have; nothing if it is one's alone.
std::string name_trouble(const std::string& name, gsize lines) {
  if (lines == 0) {
    return fmt::format("no GPIO line is called '{}'", name);
  }
  return lines > 1 ? fmt::format("several GPIO lines may be called '{}'", name) : "";
}

std::string line_trouble(const std::string& name) {
  if (!ugpio_goes_by_sysfs(name.c_str(), 0)) {
    const auto lines = gpio_lines_of_name(name);
    const auto trouble = name_trouble(name, lines.size());
    return trouble.empty() ? unusable(lines.front().chip, R_OK) : trouble;
  }
  const auto numbers = gpio_numbers_of_name(name);
  const auto trouble = name_trouble(name, numbers.size());
  return trouble.empty() ? pin_trouble(std::to_string(*numbers.begin())) : trouble;
}

std::string attribute_file_trouble(const std::string& path) {
  if (auto trouble = unusable(path, R_OK); !trouble.empty()) {
    return trouble;
  }
  const auto value = first_line(path);
  return value == "0" || value == "1" ? "" : fmt::format("{} holds neither 0 nor 1", path);
}

std::string node_trouble(const std::string& path) {
  return unusable(path, R_OK | W_OK);
}

std::string iio_trouble(const std::string& name) {
  for (const auto& device : entries(iio_folder, "iio:device")) {
    if (first_line(iio_folder + device + "/name") == name) {
      return unusable("/dev/" + device, R_OK);
    }
  }
  return fmt::format("no IIO device is called '{}'", name);
}

struct Look {
  const char* backend;
  const char* attribute;
  std::string (*trouble)(const std::string& value);
};

/// Of the element "device".
constexpr std::array looks{
    Look{"sysfs", "path", attribute_file_trouble},
    Look{"spiadc", "device", node_trouble},
    Look{"spi", "path", node_trouble},
    Look{"iio", "name", iio_trouble},
    Look{"iio", "adc", iio_trouble},
    Look{"iio-interrupt", "driver", iio_trouble},
};

constexpr std::array<std::string_view, 4> pin_elements{"input", "output", "io_ctrl", "sio_ctrl"};

const char* value_of(const DescribedElement& element, std::string_view attribute) {
  const auto found =
      std::ranges::find_if(element.attributes, [&](auto& one) { return one.name == attribute; });
  return found != element.attributes.end() ? found->value : nullptr;
}

/// Looks at one file's elements as they come.
class Search {
public:
  Search(std::string file, std::vector<Finding>& findings)
      : file_(std::move(file)), findings_(findings) {}

  void start(const DescribedElement& element);
  void end(std::string_view name);

private:
  void look_at_pin(const DescribedElement& element);
  void look_at_device(const DescribedElement& element);
  void tell(int line, const std::string& trouble);

  std::string file_;
  std::vector<Finding>& findings_;
  std::string port_;
  bool may_be_absent_ = false;
  std::string backend_;
};

void Search::tell(int line, const std::string& trouble) {
  if (!trouble.empty()) {
    findings_.push_back({.file = file_,
                         .line = line,
                         .severity = may_be_absent_ ? Severity::Note : Severity::Warning,
                         .text = fmt::format("port '{}': {}", port_, trouble)});
  }
}

// The name is preferred to the number, as the daemon does.
void Search::look_at_pin(const DescribedElement& element) {
  if (const char* const alias = value_of(element, "alias")) {
    tell(element.line, line_trouble(alias));
  } else if (const char* const pin = value_of(element, "pin")) {
    tell(element.line, pin_trouble(pin));
  }
}

void Search::look_at_device(const DescribedElement& element) {
  for (const auto& look : looks) {
    const char* const value = value_of(element, look.attribute);
    if (backend_ == look.backend && value != nullptr) {
      tell(element.line, look.trouble(value));
    }
  }
  const char* const path = value_of(element, "path");
  const char* const flag = value_of(element, "clear_flag");
  if (backend_ == "sysfs" && path != nullptr && g_strcmp0(flag, "true") == 0) {
    tell(element.line, unusable(path, W_OK));
  }
}

void Search::start(const DescribedElement& element) {
  const std::string_view name = element.name;
  if (name == "port") {
    const char* const port = value_of(element, "name");
    port_ = port != nullptr ? port : "";
    may_be_absent_ = value_of(element, "hwid") != nullptr
                     || g_strcmp0(value_of(element, "optional"), "true") == 0;
  } else if (name == "backend") {
    const char* const backend = value_of(element, "name");
    backend_ = backend != nullptr ? backend : "";
  } else if (backend_.empty()) {
    return;
  } else if (std::ranges::find(pin_elements, name) != pin_elements.end()) {
    look_at_pin(element);
  } else if (name == "device") {
    look_at_device(element);
  }
}

void Search::end(std::string_view name) {
  if (name == "backend") {
    backend_.clear();
  }
}

} // namespace

// What cannot be read or parsed is told by the check of the text.
std::vector<Finding> check_hardware(const std::vector<std::string>& files) {
  std::vector<Finding> findings;
  for (const auto& file : files) {
    std::string text;
    g_autoptr(GError) error = nullptr;
    if (!regular_file_get_contents(file.c_str(), Links::Followed, &text, &error)) {
      continue;
    }
    Search search(file, findings);
    std::ignore =
        description_read(text,
                         {.start = [&](const DescribedElement& element) { search.start(element); },
                          .end = [&](const char* name) { search.end(name); }},
                         nullptr);
  }
  return findings;
}

} // namespace wexctl
