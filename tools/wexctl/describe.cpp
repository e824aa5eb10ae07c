#include "wexctl/describe.h"

#include "platform/handles.h"
#include "wexctl/machine.h"
#include "wexctl/output.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>

namespace wexctl {

namespace {

// A name as it may stand in an attribute and in a comment, where no two hyphens meet.
std::string quoted(const std::string& name) {
  g_autofree gchar* escaped = g_markup_escape_text(printable(name).c_str(), -1);
  std::string text = escaped;
  for (auto at = text.find("--"); at != std::string::npos; at = text.find("--", at)) {
    text.replace(at, 2, "&#45;&#45;");
  }
  return text;
}

// A port that is complete but for what only a person knows.
void print_port(int number, const std::string& name, const std::string& type,
                const std::string& backend) {
  print("  <!--\n"
        "  <port name=\"{}\">\n"
        "    <port_no nbr=\"{}\"/>\n"
        "    <port_type type=\"{}\"/>\n"
        "    <properties ioport=\"true\"/>\n"
        "    {}\n"
        "  </port>\n"
        "  -->\n",
        name, number, type, backend);
}

// What the chip says of the line of that offset. Kernels have the one interface or the other, or
// both.
bool get_line(int chip, gpio_v2_line_info& line) {
  if (ioctl(chip, GPIO_V2_GET_LINEINFO_IOCTL, &line) == 0) {
    return true;
  }
  gpioline_info older{};
  older.line_offset = line.offset;
  if (ioctl(chip, GPIO_GET_LINEINFO_IOCTL, &older) != 0) {
    return false;
  }
  static_assert(sizeof line.name == sizeof older.name);
  static_assert(sizeof line.consumer == sizeof older.consumer);
  std::ranges::copy(older.name, line.name);
  std::ranges::copy(older.consumer, line.consumer);
  line.flags = (older.flags & GPIOLINE_FLAG_KERNEL) != 0 ? GPIO_V2_LINE_FLAG_USED : 0;
  return true;
}

class Description {
public:
  void add_gpio_chips();
  void add_converters();
  void add_spi_nodes();
  [[nodiscard]] bool is_empty() const { return next_number_ == 0; }

private:
  void add_line(const gpio_v2_line_info& line);

  int next_number_ = 0;
};

// Only a line with a name can be told by it, and one in use belongs to somebody.
void Description::add_line(const gpio_v2_line_info& line) {
  const auto name = quoted(line.name);
  if ((line.flags & GPIO_V2_LINE_FLAG_USED) != 0) {
    print("  <!-- line {}: {}, in use by {} -->\n", line.offset,
          name.empty() ? "without a name" : name, quoted(line.consumer));
  } else if (!name.empty()) {
    print("  <!-- line {}; output instead of input for a line that is driven -->\n", line.offset);
    print_port(next_number_++, name, "input",
               fmt::format("<backend name=\"gpio\"><input alias=\"{}\"/></backend>", name));
  }
}

void Description::add_gpio_chips() {
  for (const auto& chip : entries("/dev", "gpiochip")) {
    const UniqueFd fd(open(("/dev/" + chip).c_str(), O_RDONLY | O_CLOEXEC));
    gpiochip_info info{};
    if (!fd || ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) != 0) {
      print("  <!-- {} cannot be opened by this user -->\n", quoted(chip));
      continue;
    }
    print("\n  <!-- GPIO chip {} ({}) with {} lines -->\n", quoted(chip), quoted(info.label),
          info.lines);
    for (guint32 offset = 0; offset < info.lines; offset++) {
      gpio_v2_line_info line{};
      line.offset = offset;
      if (get_line(fd.get(), line)) {
        add_line(line);
      }
    }
  }
  for (const auto& chip : entries(gpio_folder, "gpiochip")) {
    const std::string folder = gpio_folder + chip;
    print("  <!-- pins by number: {} has {} from {} on -->\n",
          quoted(first_line(folder + "/label")), quoted(first_line(folder + "/ngpio")),
          quoted(first_line(folder + "/base")));
  }
}

void Description::add_converters() {
  for (const auto& device : entries(iio_folder, "iio:device")) {
    const std::string folder = iio_folder + device;
    const auto name = quoted(first_line(folder + "/name"));
    print("\n  <!-- IIO device {} -->\n", name);
    for (const auto& file : entries(folder.c_str(), "in_voltage")) {
      const auto channel = quoted(file.substr(0, file.rfind("_raw")));
      if (!file.ends_with("_raw")) {
        continue;
      }
      print("  <!-- {} reads {}; without pins it is measured all the time -->\n", channel,
            quoted(first_line(folder + "/" + file)));
      // The only channel of a converter need not have a number, and any may have a name after it.
      const auto told = channel.substr(strlen("in_voltage"));
      const auto digits = told.substr(0, told.find_first_not_of("0123456789"));
      const auto number = digits.empty() ? "0" : digits;
      print_port(next_number_++, name + "-" + number, "input",
                 fmt::format("<backend name=\"iio-interrupt\">"
                             "<device driver=\"{}\" mode=\"adc\" channel=\"{}\"/>"
                             "<range state=\"closed\" lower=\"0\" upper=\"100\"/></backend>",
                             name, number));
    }
  }
}

void Description::add_spi_nodes() {
  for (const auto& node : entries("/dev", "spidev")) {
    print("\n  <!-- SPI node /dev/{} -->\n", quoted(node));
    print_port(
        next_number_++, quoted(node), "input",
        fmt::format("<backend name=\"spiadc\"><device device=\"/dev/{}\" timeout=\"100\"/>"
                    "<range band=\"1\"/><input active_min=\"0\" active_max=\"127\"/></backend>",
                    quoted(node)));
  }
}

} // namespace

void describe_machine() {
  print("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!--\n"
        "  What this machine has, as far as the user who asked may see it. Take a port out of its\n"
        "  comment to use it, correct its type and name, and have it checked by wexctl, here as "
        "well.\n"
        "-->\n"
        "<config>\n");
  Description description;
  description.add_gpio_chips();
  description.add_converters();
  description.add_spi_nodes();
  if (description.is_empty()) {
    print("  <!-- Nothing was found that could be a port. -->\n");
  }
  print("</config>\n");
}

} // namespace wexctl
