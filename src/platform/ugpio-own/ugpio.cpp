// Our own libugpio, on the kernel's sysfs GPIO files.
#include <ugpio/ugpio.h>

#include "platform/gpio-names.h"
#include "platform/handles.h"
#include "platform/ugpio-named.h"

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
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct ugpio {
  unsigned int number;
  unsigned int flags;
  /// Folder of the exported pin.
  std::string folder;
  UniqueFd value;
};

namespace {

const std::string class_folder = "/sys/class/gpio/";

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

// A line whose direction is fixed has no such file; asking for what it is would be no change.
bool set_direction(const ugpio* pin, unsigned int flags) {
  const char* const word = (flags & UGPIOF_DIR_IN) != 0      ? "in"
                           : (flags & UGPIOF_INIT_HIGH) != 0 ? "high"
                                                             : "low";
  const std::string path = pin->folder + "/direction";
  return !exists(path) || write_text(path, word);
}

bool set_edges(const ugpio* pin, unsigned int flags) {
  const char* const word = edge_word(flags);
  return g_str_equal(word, "none") || write_text(pin->folder + "/edge", word);
}

// Applies the flags of a request; gives the pin back when the kernel refuses them.
ugpio_t* configure(ugpio_t* pin, unsigned int flags) {
  if (pin == nullptr) {
    return nullptr;
  }
  pin->flags = (pin->flags & UGPIOF_REQUESTED) | flags;
  if (!set_direction(pin, flags) || !set_edges(pin, flags)) {
    const int saved_errno = errno;
    ugpio_free(pin);
    errno = saved_errno;
    return nullptr;
  }
  return pin;
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

} // namespace

// The kernel shows a pin by number or, when the chip's driver says so, by the line's name.
ugpio_t* ugpio_request(unsigned int number, const char* /*label*/) {
  auto pin = std::make_unique<ugpio>(ugpio{.number = number,
                                           .flags = UGPIOF_REQUESTED | UGPIOF_DIR_UNKNOWN,
                                           .folder = numbered_folder(number),
                                           .value = UniqueFd()});
  if (exists(pin->folder)) {
    return pin.release();
  }
  const auto names = gpio_names_of_number(number);
  const auto before = named_folders(names);
  if (before.size() == 1 && only_pin_of(names, number)) {
    pin->folder = *before.begin();
    return pin.release();
  }
  if (!write_text(class_folder + "export", std::to_string(number))) {
    return nullptr;
  }
  pin->flags = UGPIOF_DIR_UNKNOWN;
  if (!exists(pin->folder)) {
    pin->folder = only_new(named_folders(names), before);
  }
  if (pin->folder.empty()) {
    ugpio_free(pin.release());
    errno = ENOENT;
    return nullptr;
  }
  wait_for_access(pin->folder);
  return pin.release();
}

ugpio_t* ugpio_request_one(unsigned int number, unsigned int flags, const char* label) {
  return configure(ugpio_request(number, label), flags);
}

// A pin that someone exported under its name can be used even where its number cannot be found.
ugpio_t* ugpio_request_named(const char* name) {
  if (const auto number = gpio_number_of_name(name)) {
    return ugpio_request(*number, name);
  }
  if (errno == ENOTUNIQ) {
    return nullptr;
  }
  const std::string folder = class_folder + name;
  if (strchr(name, '/') != nullptr || !exists(folder + "/value")) {
    errno = ENODEV;
    return nullptr;
  }
  return new ugpio{.number = 0,
                   .flags = UGPIOF_REQUESTED | UGPIOF_DIR_UNKNOWN,
                   .folder = folder,
                   .value = UniqueFd()};
}

ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags) {
  return configure(ugpio_request_named(name), flags);
}

void ugpio_free(ugpio_t* pin) {
  const std::unique_ptr<ugpio> owned(pin);
  if (pin != nullptr && (pin->flags & UGPIOF_REQUESTED) == 0) {
    pin->value.reset();
    write_text(class_folder + "unexport", std::to_string(pin->number));
  }
}

int ugpio_full_open(ugpio_t* pin) {
  const std::string path = pin->folder + "/value";
  pin->value.reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!pin->value && errno == EACCES) {
    pin->value.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }
  if (pin->value) {
    // The kernel reports a change since the last read; before the first read that is always so.
    read_char(pin->value.get());
  }
  return pin->value.get();
}

void ugpio_close(ugpio_t* pin) {
  if (pin != nullptr) {
    pin->value.reset();
  }
}

int ugpio_fd(const ugpio_t* pin) {
  return pin != nullptr ? pin->value.get() : -1;
}

int ugpio_get_value(ugpio_t* pin) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  switch (read_char(pin->value.get())) {
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

int ugpio_set_value(ugpio_t* pin, int value) {
  if (pin == nullptr) {
    errno = EBADF;
    return -1;
  }
  return pwrite(pin->value.get(), value != 0 ? "1" : "0", 1, 0) == 1 ? 0 : -1;
}

int ugpio_get_direction(ugpio_t* pin) {
  const UniqueFd fd(open((pin->folder + "/direction").c_str(), O_RDONLY | O_CLOEXEC));
  switch (fd ? read_char(fd.get()) : '\0') {
  case 'i':
    return 0;
  case 'o':
    return 1;
  default:
    return -1;
  }
}

int ugpio_direction_output(ugpio_t* pin, int value) {
  return write_text(pin->folder + "/direction", value != 0 ? "high" : "low") ? 0 : -1;
}

int ugpio_set_activelow(ugpio_t* pin, int active_low) {
  return write_text(pin->folder + "/active_low", active_low != 0 ? "1" : "0") ? 0 : -1;
}
