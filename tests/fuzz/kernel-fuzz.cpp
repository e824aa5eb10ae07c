// What the kernel says of hardware: the files of /sys, and what GPIO chips answer. A vendor's
// kernel may say anything there.
#include "fuzz-support.h"

#include "backends/iio-utils.h"
#include "core/conf-reader.h"
#include "peers/bootblock.h"
#include "platform/handles.h"
#include "support/fake-ioctl.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

void bootblock_read_param(const char* /*name*/, gchar** value) {
  *value = g_strdup("ABC123");
}

namespace {

constexpr std::string_view description = R"(<config>
<port name="level"><port_no nbr="0"/><port_type type="input"/><properties ioport="true"/>
  <backend name="iio"><device mode="adc" name="adc" adc="consumer" hrtimer="timer" freq="50"
    channel="2"/></backend></port>
<port name="value"><port_no nbr="1"/><port_type type="input"/><properties ioport="true"/>
  <backend name="sysfs"><device path="/sys/value" timeout="20" clear_flag="true"/></backend></port>
<port name="door"><port_no nbr="2"/><port_type type="input"/><properties ioport="true"/>
  <backend name="gpio"><input alias="door"/></backend></port>
</config>
)";

constexpr std::string_view scan_type_file =
    "/sys/bus/iio/devices/iio:device2/scan_elements/in_voltage2_type";
// Those that are read; each holds the next piece of the input.
constexpr std::array files{
    "/sys/bus/iio/devices/iio:device2/name",
    scan_type_file.data(),
    "/sys/bus/iio/devices/iio:device5/name",
    "/sys/bus/iio/devices/iio:device5/trigger/current_trigger",
    "/sys/bus/iio/devices/trigger3/name",
    "/sys/value",
    "/sys/class/gpio/gpiochip0/base",
    "/sys/class/gpio/gpiochip0/ngpio",
    "/sys/class/gpio/gpiochip0/label",
    "/sys/class/gpio/gpio7/value",
    "/sys/class/gpio/gpio7/direction",
};
// Those that are written, or only have to be there.
constexpr std::array others{
    "/sys/bus/iio/devices/iio:device2/buffer/enable",
    "/sys/bus/iio/devices/iio:device2/scan_elements/in_voltage2_en",
    "/sys/bus/iio/devices/trigger3/sampling_frequency",
    "/sys/kernel/config/iio/triggers/hrtimer/timer/name",
    "/sys/class/gpio/export",
    "/sys/class/gpio/unexport",
    "/sys/class/gpio/gpio7/edge",
    "/sys/class/gpio/gpio7/active_low",
    "/sys/devices/chip/dev",
    "/dev/gpiochip0",
    "/dev/shm/here",
};

void write_file(const std::string& path, std::string_view text) {
  std::ofstream file(path);
  file << text;
  file.flush();
  fuzz_require(file.good());
}

constexpr const char* samples_node = "/dev/iio:device2";

std::string_view take_text(FuzzInput& input) {
  const gsize size = std::min<gsize>(fuzz_take<guint8>(input) % 64, input.size());
  const std::string_view text(reinterpret_cast<const char*>(input.data()), size);
  input = input.subspan(size);
  return text;
}

template <gsize size>
void copy_text(FuzzInput& input, char (&field)[size]) {
  take_text(input).copy(field, size);
}

// As a chip answers, without a limit to what its labels and names may be. No kernel has more lines
// than it can count in a moment.
int answer(FuzzInput& input, unsigned long request, void* argument) {
  constexpr guint32 most_lines = 16;
  if (request == GPIO_GET_CHIPINFO_IOCTL) {
    auto& info = *static_cast<gpiochip_info*>(argument);
    copy_text(input, info.label);
    info.lines = fuzz_take<guint32>(input) % most_lines;
    return 0;
  }
  if (request == GPIO_V2_GET_LINEINFO_IOCTL) {
    copy_text(input, static_cast<gpio_v2_line_info*>(argument)->name);
    return 0;
  }
  errno = EINVAL;
  return -1;
}

void lay_out_machine() {
  for (const char* place : {"/sys", "/dev"}) {
    fuzz_require(mount("none", place, "tmpfs", 0, nullptr) == 0);
  }
  for (const char* file : others) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    write_file(file, "");
  }
  for (const char* file : files) {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  }
  std::filesystem::create_directories("/sys/dev/char");
  std::filesystem::create_directory_symlink("/sys/devices/chip", "/sys/dev/char/0:0");
  std::filesystem::create_directory_symlink("/sys/devices/chip",
                                            "/sys/class/gpio/gpiochip0/device");
  write_file("/sys/description.xml", description);
  fuzz_require(mkfifo(samples_node, 0600) == 0);
}

// A converter of another form than the backend can read is a mistake of the board, and ends the
// daemon.
bool can_be_read(std::string_view scan_type) {
  const auto type = iio_parse_scan_type(std::string(scan_type).c_str());
  return !type
         || (type->sign == 'u' && type->bits <= 32 && type->size <= 32 && type->size % 8 == 0);
}

// A pipe is ready when there is something in it, as a converter's buffer is.
class Converter {
public:
  void send(std::string_view samples) const {
    fuzz_require(std::cmp_equal(write(fd_.get(), samples.data(), samples.size()), samples.size()));
  }

private:
  UniqueFd fd_{open(samples_node, O_RDWR | O_NONBLOCK | O_CLOEXEC)};
};

void run_pending() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

void live(std::string_view samples) {
  const Converter converter;
  ConfReader reader;
  fuzz_require(conf_read_configuration(reader, "/sys/description.xml"));
  conf_finish_reading();
  io_port_list_setup();
  io_port_list_set_watch();
  run_pending();
  converter.send(samples);
  run_pending();
  for (gint number = 0; number < 3; number++) {
    if (const IoPortRef port = io_port_list_get_port(number)) {
      std::ignore = io_port_get_state(port.get());
    }
  }
  fuzz_check_ports();
  io_port_list_free();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  static const bool laid_out = (lay_out_machine(), true);
  fuzz_require(laid_out);
  FuzzInput input(data, size);
  for (const char* file : files) {
    const std::string_view text = take_text(input);
    if (file == scan_type_file && !can_be_read(text)) {
      return 0;
    }
    write_file(file, text);
  }
  const std::string_view samples = take_text(input);
  fake_ioctl = [&input](int /*fd*/, unsigned long request, void* argument) {
    return answer(input, request, argument);
  };
  live(samples);
  fake_ioctl = nullptr;
  return 0;
}
