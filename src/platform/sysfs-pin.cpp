#include "platform/sysfs-pin.h"

#include "platform/gpio-names.h"
#include "platform/handles.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

const std::string class_folder = "/sys/class/gpio/";
constexpr const char* export_file = "/sys/class/gpio/export";
constexpr const char* unexport_file = "/sys/class/gpio/unexport";

bool write_text(const std::string& path, std::string_view text) {
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!fd) {
    return false;
  }
  return std::cmp_equal(write(fd.get(), text.data(), text.size()), text.size());
}

bool exists(const std::string& folder) {
  struct stat status {};
  return stat(folder.c_str(), &status) == 0;
}

// The files of a fresh pin are root's. Where the daemon's user may take pins, the device manager
// hands them over a moment later, "value" as the last; a busy machine may take seconds.
void wait_for_access(const std::string& folder) {
  constexpr gulong step_us = 5000;
  constexpr int steps = 1000;
  const std::string path = folder + "/value";
  for (int i = 0; i < steps && access(path.c_str(), W_OK) != 0 && errno == EACCES; i++) {
    g_usleep(step_us);
  }
}

std::string numbered_folder(unsigned int number) {
  return class_folder + "gpio" + std::to_string(number);
}

// Folders of pins that are shown by one of these names, as chips of some drivers have it.
std::set<std::string> named_folders(const std::set<std::string>& names) {
  std::set<std::string> folders;
  g_autoptr(GDir) dir = names.empty() ? nullptr : g_dir_open(class_folder.c_str(), 0, nullptr);
  while (const gchar* entry = dir != nullptr ? g_dir_read_name(dir) : nullptr) {
    const bool meant = std::ranges::any_of(
        names, [entry](const std::string& name) { return gpio_told_as(entry, name); });
    const std::string folder = class_folder + entry;
    if (meant && exists(folder + "/value")) {
      folders.insert(folder);
    }
  }
  return folders;
}

// Whether no other pin can have the only one of these names.
bool only_pin_of(const std::set<std::string>& names, unsigned int number) {
  return names.size() == 1 && gpio_numbers_of_name(*names.begin()) == std::set{number};
}

// The only folder of `after` that is not in `before`, or none.
std::string only_new(const std::set<std::string>& after, const std::set<std::string>& before) {
  std::vector<std::string> fresh;
  std::ranges::set_difference(after, before, std::back_inserter(fresh));
  return fresh.size() == 1 ? fresh.front() : std::string();
}

const char* edge_word(unsigned int flags) {
  static constexpr std::array words{"none", "falling", "rising", "both"};
  return words[(flags & (UGPIOF_TRIG_FALL | UGPIOF_TRIG_RISE)) / UGPIOF_TRIG_FALL];
}

// '\0', with errno set, when there is nothing to be read.
char read_char(int fd) {
  char c = 0;
  const ssize_t got = pread(fd, &c, 1, 0);
  if (got == 0) {
    errno = ENODATA;
  }
  return got == 1 ? c : '\0';
}

// A pin in its folder. One that the request exported goes back when it goes.
class SysfsPin : public ugpio {
public:
  SysfsPin(std::string folder, std::optional<unsigned int> exported)
      : folder_(std::move(folder)), exported_(exported) {}
  ~SysfsPin() override;

  /// Applies the flags of a request; false, with errno set, when the kernel refuses them.
  [[nodiscard]] bool configure(unsigned int flags);

  int open_value() override;
  void close_value() override;
  [[nodiscard]] int fd() const override { return value_.get(); }
  int value() override;
  int set_value(PinLevel value) override;
  int direction() override;
  int make_output(PinLevel raw_level) override;
  int set_polarity(PinPolarity polarity) override;
  [[nodiscard]] GIOCondition edge_condition(GIOCondition of_value_file) const override {
    return of_value_file;
  }
  int take_edges() override;

private:
  [[nodiscard]] bool set_direction(unsigned int flags) const;
  [[nodiscard]] bool set_edges(unsigned int flags) const;

  std::string folder_;
  /// Its number, if it was exported for this.
  std::optional<unsigned int> exported_;
  /// The kernel is to tell of its edges.
  bool has_edges_ = false;
  UniqueFd value_;
  /// The file again, where edges are told: a reading through the descriptor that is polled takes
  /// the edges so far, and somebody who only asks for the state would take one that nobody knows of
  /// yet.
  UniqueFd reading_;
};

SysfsPin::~SysfsPin() {
  SysfsPin::close_value();
  if (exported_) {
    write_text(unexport_file, std::to_string(*exported_));
  }
}

// A line whose direction is fixed has no such file; asking for what it is would be no change.
bool SysfsPin::set_direction(unsigned int flags) const {
  const char* const word = (flags & UGPIOF_DIR_IN) != 0      ? "in"
                           : (flags & UGPIOF_INIT_HIGH) != 0 ? "high"
                                                             : "low";
  const std::string path = folder_ + "/direction";
  return !exists(path) || write_text(path, word);
}

bool SysfsPin::set_edges(unsigned int flags) const {
  const char* const word = edge_word(flags);
  return g_str_equal(word, "none") || write_text(folder_ + "/edge", word);
}

bool SysfsPin::configure(unsigned int flags) {
  has_edges_ = (flags & (UGPIOF_TRIG_FALL | UGPIOF_TRIG_RISE)) != 0;
  return (flags & UGPIOF_DIR_UNKNOWN) != 0 || (set_direction(flags) && set_edges(flags));
}

int SysfsPin::open_value() {
  const std::string path = folder_ + "/value";
  value_.reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!value_ && errno == EACCES) {
    value_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  if (value_) {
    // The kernel reports a change since the last read; before the first read that is always so.
    read_char(value_.get());
  }
  if (value_ && has_edges_) {
    reading_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  return value_.get();
}

void SysfsPin::close_value() {
  value_.reset();
  reading_.reset();
}

// Without a descriptor of its own the reading that follows takes them.
int SysfsPin::take_edges() {
  return !reading_ || read_char(value_.get()) != '\0' ? 0 : -1;
}

int SysfsPin::value() {
  switch (read_char(reading_ ? reading_.get() : value_.get())) {
  case '0':
    return 0;
  case '1':
    return 1;
  case '\0':
    return -1;
  default:
    errno = EINVAL;
    return -1;
  }
}

int SysfsPin::set_value(PinLevel value) {
  return pwrite(value_.get(), value == PinLevel::High ? "1" : "0", 1, 0) == 1 ? 0 : -1;
}

int SysfsPin::direction() {
  const UniqueFd fd(open((folder_ + "/direction").c_str(), O_RDONLY | O_CLOEXEC));
  switch (fd ? read_char(fd.get()) : '\0') {
  case 'i':
    return 0;
  case 'o':
    return 1;
  default:
    return -1;
  }
}

int SysfsPin::make_output(PinLevel raw_level) {
  return write_text(folder_ + "/direction", raw_level == PinLevel::High ? "high" : "low") ? 0 : -1;
}

int SysfsPin::set_polarity(PinPolarity polarity) {
  const char* const active_low = polarity == PinPolarity::ActiveLow ? "1" : "0";
  return write_text(folder_ + "/active_low", active_low) ? 0 : -1;
}

using SysfsPinPtr = std::unique_ptr<SysfsPin>;

SysfsPinPtr exported_already(const std::string& folder) {
  return std::make_unique<SysfsPin>(folder, std::nullopt);
}

// The kernel shows a pin by number or, when the chip's driver says so, by the line's name.
SysfsPinPtr pin_of_number(unsigned int number) {
  const std::string numbered = numbered_folder(number);
  if (exists(numbered)) {
    return exported_already(numbered);
  }
  const auto names = gpio_names_of_number(number);
  const auto before = named_folders(names);
  if (before.size() == 1 && only_pin_of(names, number)) {
    return exported_already(*before.begin());
  }
  if (!write_text(export_file, std::to_string(number))) {
    return nullptr;
  }
  const std::string folder = exists(numbered) ? numbered : only_new(named_folders(names), before);
  auto pin = std::make_unique<SysfsPin>(folder, number);
  if (folder.empty()) {
    pin.reset();
    errno = ENOENT;
    return nullptr;
  }
  wait_for_access(folder);
  return pin;
}

// The folder of a pin that someone exported under that name; empty if there is none.
std::string folder_of_name(const char* name) {
  const std::string folder = class_folder + name;
  return strchr(name, '/') == nullptr && exists(folder + "/value") ? folder : "";
}

// A pin that someone exported under its name can be used even where its number cannot be found.
SysfsPinPtr pin_of_name(const char* name) {
  if (const auto number = gpio_number_of_name(name)) {
    return pin_of_number(*number);
  }
  if (errno == ENOTUNIQ) {
    return nullptr;
  }
  const std::string folder = folder_of_name(name);
  if (folder.empty()) {
    errno = ENODEV;
    return nullptr;
  }
  return exported_already(folder);
}

// Applies the flags of a request; gives the pin back when the kernel refuses them.
PinPtr configured(SysfsPinPtr pin, unsigned int flags) {
  if (pin == nullptr || pin->configure(flags)) {
    return pin;
  }
  const int saved_errno = errno;
  pin.reset();
  errno = saved_errno;
  return nullptr;
}

} // namespace

bool sysfs_has_pin(const WhichPin& which) {
  return exists(export_file)
         || (which.name != nullptr ? !folder_of_name(which.name).empty()
                                   : exists(numbered_folder(which.number)));
}

PinPtr sysfs_pin_request(const WhichPin& which, unsigned int flags) {
  return configured(which.name != nullptr ? pin_of_name(which.name) : pin_of_number(which.number),
                    flags);
}
