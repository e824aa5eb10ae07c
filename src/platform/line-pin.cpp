#include "platform/line-pin.h"

#include "platform/flags.h"
#include "platform/gpio-names.h"
#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* consumer = "wexd";
/// What the kernel keeps for a request of one line when it is not told otherwise.
constexpr gsize queued_edges = 16;

struct FlagWord {
  unsigned int of_request;
  guint64 of_line;
};
constexpr std::array flag_words{
    FlagWord{UGPIOF_TRIG_FALL, GPIO_V2_LINE_FLAG_EDGE_FALLING},
    FlagWord{UGPIOF_TRIG_RISE, GPIO_V2_LINE_FLAG_EDGE_RISING},
};

// A request may change any line's direction later on, so that needs no word.
guint64 line_flags(unsigned int flags) {
  if ((flags & UGPIOF_DIR_UNKNOWN) != 0) {
    return 0;
  }
  if ((flags & UGPIOF_DIR_IN) == 0) {
    return GPIO_V2_LINE_FLAG_OUTPUT;
  }
  guint64 wanted = GPIO_V2_LINE_FLAG_INPUT;
  for (const auto& word : flag_words) {
    wanted |= (flags & word.of_request) != 0 ? word.of_line : 0;
  }
  return wanted;
}

bool is_output(guint64 flags) {
  return (flags & GPIO_V2_LINE_FLAG_OUTPUT) != 0;
}

bool is_active_low(guint64 flags) {
  return (flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0;
}

// What a level of the wire means, and the other way round.
PinLevel turned(PinLevel level, guint64 flags) {
  return (level == PinLevel::High) != is_active_low(flags) ? PinLevel::High : PinLevel::Low;
}

// An output is told its level together with all else, as it reads by its active-low setting.
gpio_v2_line_config line_config(guint64 flags, PinLevel raw_level) {
  gpio_v2_line_config config{};
  config.flags = flags;
  if (is_output(flags)) {
    config.num_attrs = 1;
    config.attrs[0].mask = 1;
    config.attrs[0].attr.id = GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES;
    config.attrs[0].attr.values = turned(raw_level, flags) == PinLevel::High ? 1 : 0;
  }
  return config;
}

class LinePin : public ugpio {
public:
  /// Takes the line; false, with errno set, when the kernel refuses it.
  [[nodiscard]] bool request(const GpioLine& line, unsigned int flags);

  // The request's own descriptor is what is read, written and polled.
  int open_value() override { return fd(); }
  void close_value() override { request_.reset(); }
  [[nodiscard]] int fd() const override { return request_.get(); }
  int value() override;
  int set_value(PinLevel value) override;
  int direction() override { return is_output(flags_) ? 1 : 0; }
  int make_output(PinLevel raw_level) override;
  int set_polarity(PinPolarity polarity) override;
  // A chip that is gone is told as an error and a hang-up.
  [[nodiscard]] GIOCondition edge_condition(GIOCondition /*of_value_file*/) const override {
    return flags(G_IO_IN, G_IO_ERR, G_IO_HUP);
  }
  int take_edges() override;

private:
  [[nodiscard]] bool look_how_it_stands(int chip, guint32 offset);
  int configure(guint64 flags, PinLevel raw_level);

  UniqueFd request_;
  /// As the kernel has them; nobody else can change them while the request lasts.
  guint64 flags_ = 0;
  /// What an output was driven to last, on the wire.
  PinLevel raw_level_ = PinLevel::Low;
};

bool LinePin::request(const GpioLine& line, unsigned int flags) {
  const UniqueFd chip(open(line.chip.c_str(), O_RDONLY | O_CLOEXEC));
  gpio_v2_line_request wish{};
  wish.num_lines = 1;
  wish.offsets[0] = line.offset;
  g_strlcpy(wish.consumer, consumer, sizeof wish.consumer);
  flags_ = line_flags(flags);
  raw_level_ = (flags & UGPIOF_INIT_HIGH) != 0 ? PinLevel::High : PinLevel::Low;
  wish.config = line_config(flags_, raw_level_);
  if (!chip || ioctl(chip.get(), GPIO_V2_GET_LINE_IOCTL, &wish) != 0) {
    return false;
  }
  request_.reset(wish.fd);
  // Edges are taken without waiting for one.
  if (fcntl(wish.fd, F_SETFL, O_NONBLOCK) != 0) {
    return false;
  }
  return flags_ != 0 || look_how_it_stands(chip.get(), line.offset);
}

// A line that is taken as it stands is an input or an output all the same.
bool LinePin::look_how_it_stands(int chip, guint32 offset) {
  gpio_v2_line_info info{};
  info.offset = offset;
  if (ioctl(chip, GPIO_V2_GET_LINEINFO_IOCTL, &info) != 0) {
    return false;
  }
  flags_ = info.flags & (GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT);
  const int level = is_output(flags_) ? value() : 0;
  raw_level_ = level == 1 ? PinLevel::High : PinLevel::Low;
  return level != -1;
}

int LinePin::configure(guint64 flags, PinLevel raw_level) {
  auto config = line_config(flags, raw_level);
  if (ioctl(request_.get(), GPIO_V2_LINE_SET_CONFIG_IOCTL, &config) != 0) {
    return -1;
  }
  flags_ = flags;
  raw_level_ = raw_level;
  return 0;
}

int LinePin::value() {
  gpio_v2_line_values values{.bits = 0, .mask = 1};
  if (ioctl(request_.get(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values) != 0) {
    return -1;
  }
  return (values.bits & 1) != 0 ? 1 : 0;
}

int LinePin::set_value(PinLevel value) {
  gpio_v2_line_values values{.bits = value == PinLevel::High ? 1U : 0U, .mask = 1};
  if (ioctl(request_.get(), GPIO_V2_LINE_SET_VALUES_IOCTL, &values) != 0) {
    return -1;
  }
  raw_level_ = turned(value, flags_);
  return 0;
}

int LinePin::make_output(PinLevel raw_level) {
  return configure(GPIO_V2_LINE_FLAG_OUTPUT | (flags_ & GPIO_V2_LINE_FLAG_ACTIVE_LOW), raw_level);
}

// The wire keeps its level: only what it means changes.
int LinePin::set_polarity(PinPolarity polarity) {
  constexpr guint64 flag = GPIO_V2_LINE_FLAG_ACTIVE_LOW;
  return configure(polarity == PinPolarity::ActiveLow ? flags_ | flag : flags_ & ~flag, raw_level_);
}

// One call takes all that the queue can hold. What was too much for it is not missed: the level is
// read after this.
int LinePin::take_edges() {
  std::array<gpio_v2_line_event, queued_edges> edges;
  [[maybe_unused]] const ssize_t taken = read(request_.get(), edges.data(), sizeof edges);
  return 0;
}

std::string told(const std::vector<GpioLine>& lines) {
  std::string all;
  for (const auto& line : lines) {
    all += (all.empty() ? "line " : " or line ") + std::to_string(line.offset) + " of " + line.chip;
  }
  return all;
}

void warn_of_name(const WhichPin& which, const std::vector<GpioLine>& lines) {
  g_warning("%sLine '%s' may be %s: only a name that no other line has can tell a pin", log_prefix,
            which.name, told(lines).c_str());
}

void warn_of_number(const WhichPin& which) {
  g_warning("%sNo chip tells whether it has pin %u: describe it by alias", log_prefix,
            which.number);
}

// A machine without any chip has nothing that could be described otherwise.
std::optional<GpioLine> only_line(const WhichPin& which) {
  const bool by_name = which.name != nullptr;
  const auto lines = by_name ? gpio_lines_of_name(which.name) : gpio_lines_of_number(which.number);
  if (lines.size() == 1) {
    return lines.front();
  }
  if (by_name && !lines.empty()) {
    warn_of_name(which, lines);
  } else if (!by_name && gpio_chips_here()) {
    warn_of_number(which);
  }
  errno = lines.empty() ? ENODEV : ENOTUNIQ;
  return std::nullopt;
}

} // namespace

PinPtr line_pin_request(const WhichPin& which, unsigned int flags) {
  const auto line = only_line(which);
  if (!line) {
    return nullptr;
  }
  auto pin = std::make_unique<LinePin>();
  if (!pin->request(*line, flags)) {
    const int saved_errno = errno;
    pin.reset();
    errno = saved_errno;
  }
  return pin;
}
