// Pins through line requests, from the port down to the kernel's calls: a chip of one line stands
// behind ioctl, a pipe in the place of the request's descriptor.
#include "platform/gpio-names.h"
#include "platform/ugpio-extras.h"
#include "support/backend-fixture.h"
#include "support/fake-ioctl.h"

#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>

#include <array>
#include <cerrno>
#include <deque>
#include <map>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::map<std::string, std::vector<GpioLine>> lines_by_name;
std::map<guint, std::vector<GpioLine>> lines_by_number;
bool chips_here = true;

constexpr guint64 output_flag = GPIO_V2_LINE_FLAG_OUTPUT;
constexpr guint64 low_flag = GPIO_V2_LINE_FLAG_ACTIVE_LOW;
constexpr guint64 edge_flags = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;

/// The line as the kernel has it; what its wire was driven to and what it was asked for stays.
struct Chip {
  guint32 offset = 0;
  std::string consumer;
  guint64 flags = GPIO_V2_LINE_FLAG_INPUT;
  bool wire = false;
  std::vector<bool> driven;
  std::vector<guint64> configured;
  std::array<int, 2> queue{-1, -1};
  /// errno that the next readings fail with, 0 for one that works.
  std::deque<int> readings;
  /// errno that every call fails with.
  int fault = 0;

  int answer(unsigned long request, void* argument);
  int take(gpio_v2_line_request& wish);
  int configure(const gpio_v2_line_config& config);
  int read_values(gpio_v2_line_values& values);
  void drive(bool value) { driven.push_back(wire = value != is_low()); }
  [[nodiscard]] bool is_low() const { return (flags & low_flag) != 0; }
  [[nodiscard]] bool is_output() const { return (flags & output_flag) != 0; }

  /// Changes the level from outside, with the event that this puts into the queue.
  void pull(bool level);
  [[nodiscard]] bool given_back() const;
};
Chip chip;

int failed_with(int reason) {
  errno = reason;
  return -1;
}

int Chip::configure(const gpio_v2_line_config& config) {
  const guint64 direction = GPIO_V2_LINE_FLAG_INPUT | output_flag;
  configured.push_back(config.flags);
  const guint64 kept = (config.flags & direction) != 0 ? 0 : flags & direction;
  flags = config.flags | kept;
  if ((config.flags & output_flag) != 0) {
    EXPECT_EQ(config.num_attrs, 1U);
    EXPECT_EQ(config.attrs[0].attr.id, static_cast<guint32>(GPIO_V2_LINE_ATTR_ID_OUTPUT_VALUES));
    EXPECT_EQ(config.attrs[0].mask, 1U);
    drive((config.attrs[0].attr.values & 1) != 0);
  }
  return 0;
}

int Chip::take(gpio_v2_line_request& wish) {
  EXPECT_EQ(wish.num_lines, 1U);
  offset = wish.offsets[0];
  consumer = wish.consumer;
  EXPECT_EQ(pipe2(queue.data(), O_CLOEXEC), 0);
  wish.fd = queue[0];
  return configure(wish.config);
}

int Chip::read_values(gpio_v2_line_values& values) {
  EXPECT_EQ(values.mask, 1U);
  if (!readings.empty()) {
    const int reason = readings.front();
    readings.pop_front();
    if (reason != 0) {
      return failed_with(reason);
    }
  }
  values.bits = wire != is_low() ? 1 : 0;
  return 0;
}

int Chip::answer(unsigned long request, void* argument) {
  if (fault != 0) {
    return failed_with(fault);
  }
  switch (request) {
  case GPIO_V2_GET_LINE_IOCTL:
    return take(*static_cast<gpio_v2_line_request*>(argument));
  case GPIO_V2_LINE_SET_CONFIG_IOCTL:
    return configure(*static_cast<gpio_v2_line_config*>(argument));
  case GPIO_V2_LINE_GET_VALUES_IOCTL:
    return read_values(*static_cast<gpio_v2_line_values*>(argument));
  case GPIO_V2_LINE_SET_VALUES_IOCTL:
    drive((static_cast<gpio_v2_line_values*>(argument)->bits & 1) != 0);
    return 0;
  case GPIO_V2_GET_LINEINFO_IOCTL:
    static_cast<gpio_v2_line_info*>(argument)->flags = flags | GPIO_V2_LINE_FLAG_USED;
    return 0;
  default:
    ADD_FAILURE() << "unknown request " << request;
    return failed_with(ENOTTY);
  }
}

void Chip::pull(bool level) {
  wire = level;
  gpio_v2_line_event event{};
  event.id = level ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE;
  EXPECT_EQ(write(queue[1], &event, sizeof event), static_cast<ssize_t>(sizeof event));
}

bool Chip::given_back() const {
  pollfd end{.fd = queue[1], .events = POLLOUT, .revents = 0};
  return poll(&end, 1, 0) == 1 && (end.revents & POLLERR) != 0;
}

struct APortOnALine : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    chip = Chip();
    chips_here = true;
    const std::string path = folder.write("gpiochip0", "");
    lines_by_name = {{"door", {{.chip = path, .offset = 3}}}};
    lines_by_number = {{17, {{.chip = path, .offset = 5}}}};
    fake_ioctl = [](int, unsigned long request, void* argument) {
      return chip.answer(request, argument);
    };
  }
  void TearDown() override {
    BackendTest::TearDown();
    fake_ioctl = nullptr;
    if (chip.queue[1] >= 0) {
      EXPECT_TRUE(chip.given_back());
      close(chip.queue[1]);
    }
  }

  static IoPortRef describe(PortType type, const char* pin = "door",
                            const char* inverted = nullptr) {
    auto port = make("gpio", type);
    const char* const element = type == PORT_INPUT ? "input" : "output";
    const bool by_number = g_ascii_isdigit(*pin);
    io_port_parse_backend_data(port.get(), element, by_number ? "pin" : "alias", pin);
    if (inverted != nullptr) {
      io_port_parse_backend_data(port.get(), element, "inverted", inverted);
    }
    return port;
  }

  static IoPortRef watched(const char* inverted = nullptr) {
    auto port = describe(PORT_INPUT, "door", inverted);
    EXPECT_TRUE(io_port_setup(port.get()));
    EXPECT_TRUE(io_port_set_watch(port.get()));
    run_pending();
    EXPECT_EQ(states(), 0U);
    return port;
  }

  static bool refused(const IoPortRef& port) {
    port->optional = true;
    return !io_port_setup(port.get());
  }

  ScratchFolder folder;
};

TEST_F(APortOnALine, requests_its_line_for_the_daemon_with_both_edges) {
  const auto port = watched();
  EXPECT_EQ(chip.offset, 3U);
  EXPECT_EQ(chip.consumer, "wexd");
  EXPECT_THAT(chip.configured, ElementsAre(GPIO_V2_LINE_FLAG_INPUT | edge_flags));
  EXPECT_THAT(chip.driven, IsEmpty());
}

TEST_F(APortOnALine, takes_a_number_where_it_is_told_whose_it_is) {
  const auto port = describe(PORT_INPUT, "17");
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_EQ(chip.offset, 5U);
}

TEST_F(APortOnALine, reports_edges) {
  const auto port = watched();
  for (const bool level : {true, false, true}) {
    chip.pull(level);
    EXPECT_TRUE(run_until([] { return states() > 0; }));
    run_pending();
    EXPECT_THAT(take_states(), ElementsAre(level));
    EXPECT_EQ(io_port_get_state(port.get()), level);
  }
}

TEST_F(APortOnALine, reads_an_inverted_line_the_other_way_round_and_keeps_its_edges) {
  const auto port = watched("true");
  EXPECT_EQ(chip.configured.back(), GPIO_V2_LINE_FLAG_INPUT | edge_flags | low_flag);
  EXPECT_TRUE(io_port_get_state(port.get()));
  chip.pull(true);
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  EXPECT_THAT(take_states(), ElementsAre(false));
}

TEST_F(APortOnALine, reports_a_bouncing_edge_once) {
  const auto port = watched();
  for (const bool level : {true, false, true}) {
    chip.pull(level);
  }
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  run_pending();
  EXPECT_THAT(take_states(), ElementsAre(true));
}

TEST_F(APortOnALine, reports_an_edge_from_amid_a_report) {
  const auto port = watched();
  static std::vector<bool> reported;
  reported.clear();
  port_observer.port_changed = [](const PortChange& change) {
    if (change.state) {
      chip.pull(false);
    }
    reported.push_back(change.state);
  };
  chip.pull(true);
  EXPECT_TRUE(run_until([] { return reported.size() == 2; }));
  run_pending();
  EXPECT_THAT(reported, ElementsAre(true, false));
}

TEST_F(APortOnALine, leaves_a_line_alone_that_cannot_be_read_for_a_moment) {
  const auto port = watched();
  chip.readings = {EIO, EIO};
  chip.pull(true);
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  EXPECT_THAT(take_states(), ElementsAre(true));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Pin of port 1 cannot be read, trying again every "
                                          "100 ms: Input/output error"));
}

TEST_F(APortOnALine, tells_that_it_cannot_be_driven) {
  const auto port = describe(PORT_OUTPUT);
  EXPECT_TRUE(io_port_setup(port.get()));
  chip.fault = ENODEV;
  io_port_set_state(port.get(), true);
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to set state on port!\n"));
}

TEST_F(APortOnALine, stops_watching_a_line_whose_chip_is_gone) {
  const auto port = watched();
  chip.fault = ENODEV;
  close(std::exchange(chip.queue[1], -1));
  EXPECT_TRUE(run_until([] {
    return static_cast<bool>(logged(G_LOG_LEVEL_WARNING, "Pin of port 1 cannot be read any more, "
                                                         "not watching it: No such device"));
  }));
  run_pending();
  EXPECT_EQ(states(), 0U);
}

TEST_F(APortOnALine, gives_its_line_back_when_it_is_closed_and_takes_it_again) {
  const auto port = watched();
  io_port_close(port.get());
  EXPECT_TRUE(chip.given_back());
  close(chip.queue[1]);
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_FALSE(chip.given_back());
}

struct OutputRow {
  const char* label;
  const char* inverted;
  bool activelow;
  bool wire;
};

struct AnOutputOnALine : APortOnALine, testing::WithParamInterface<OutputRow> {};

TEST_P(AnOutputOnALine, starts_without_a_glitch_and_is_driven) {
  const auto& row = GetParam();
  auto port = describe(PORT_OUTPUT, "door", row.inverted);
  port->activelow_output = row.activelow;
  EXPECT_TRUE(io_port_setup(port.get()));
  for (const bool level : chip.driven) {
    EXPECT_EQ(level, row.wire);
  }
  EXPECT_TRUE(chip.is_output());
  EXPECT_FALSE(io_port_get_state(port.get()));
  chip.driven.clear();
  for (const bool state : {true, false}) {
    EXPECT_TRUE(io_port_set_state(port.get(), state));
    EXPECT_EQ(io_port_get_state(port.get()), state);
  }
  EXPECT_THAT(chip.driven, ElementsAre(!row.wire, row.wire));
}

INSTANTIATE_TEST_SUITE_P(Levels, AnOutputOnALine,
                         testing::Values(OutputRow{"low", nullptr, false, false},
                                         OutputRow{"high", nullptr, true, true},
                                         OutputRow{"inverted_low", "true", false, true},
                                         OutputRow{"inverted_high", "true", true, false},
                                         OutputRow{"explicitly_not", "no", true, true}),
                         [](const auto& row) { return std::string(row.param.label); });

TEST_F(APortOnALine, is_refused_a_line_that_somebody_else_has) {
  const auto port = describe(PORT_INPUT);
  chip.fault = EBUSY;
  EXPECT_TRUE(refused(port));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to allocate pin 0/door"));
}

TEST_F(APortOnALine, is_refused_a_name_of_several_lines_with_all_of_them) {
  lines_by_name["door"] = {{.chip = "/dev/gpiochip1", .offset = 3},
                           {.chip = "/dev/gpiochip4", .offset = 0}};
  const auto port = describe(PORT_INPUT);
  EXPECT_TRUE(refused(port));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_WARNING,
             "Line 'door' may be line 3 of /dev/gpiochip1 or line 0 of /dev/gpiochip4: only "
             "a name that no other line has can tell a pin"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to allocate pin 0/door"));
}

TEST_F(APortOnALine, is_refused_a_name_of_no_line) {
  const auto port = describe(PORT_INPUT, "gate");
  EXPECT_TRUE(refused(port));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to allocate pin 0/gate"));
}

TEST_F(APortOnALine, is_told_to_use_a_name_for_a_number_that_nothing_tells) {
  const auto port = describe(PORT_INPUT, "18");
  EXPECT_TRUE(refused(port));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_WARNING, "No chip tells whether it has pin 18: describe it by alias"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to allocate pin 18/(null)"));
}

TEST_F(APortOnALine, is_told_nothing_of_names_where_there_is_no_chip) {
  chips_here = false;
  const auto port = describe(PORT_INPUT, "18");
  EXPECT_TRUE(refused(port));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to allocate pin 18/(null)"));
}

/// A line that is taken as it stands.
struct AStandingLine : APortOnALine {
  ugpio_t* take() {
    pin = ugpio_request_named("door");
    EXPECT_NE(pin, nullptr);
    EXPECT_THAT(chip.driven, IsEmpty());
    return pin;
  }
  void TearDown() override {
    ugpio_free(pin);
    APortOnALine::TearDown();
  }
  ugpio_t* pin = nullptr;
};

TEST_F(AStandingLine, stays_the_input_that_it_was_until_it_is_made_an_output) {
  take();
  EXPECT_EQ(ugpio_get_direction(pin), 0);
  EXPECT_EQ(ugpio_direction_output(pin, 1), 0);
  EXPECT_EQ(ugpio_get_direction(pin), 1);
  EXPECT_THAT(chip.driven, ElementsAre(true));
}

TEST_F(AStandingLine, is_made_an_output_at_the_level_of_the_wire_however_it_is_read) {
  take();
  EXPECT_EQ(ugpio_set_activelow(pin, 1), 0);
  EXPECT_EQ(ugpio_direction_output(pin, 1), 0);
  EXPECT_THAT(chip.driven, ElementsAre(true));
  EXPECT_EQ(ugpio_get_value(pin), 0);
}

struct ADrivenLine : AStandingLine, testing::WithParamInterface<bool> {};

TEST_P(ADrivenLine, keeps_its_level_while_its_meaning_is_turned) {
  chip.flags = output_flag;
  chip.wire = GetParam();
  take();
  EXPECT_EQ(ugpio_get_direction(pin), 1);
  EXPECT_EQ(ugpio_set_activelow(pin, 1), 0);
  EXPECT_EQ(ugpio_get_value(pin), GetParam() ? 0 : 1);
  EXPECT_EQ(ugpio_set_value(pin, 1), 0);
  EXPECT_EQ(ugpio_set_activelow(pin, 0), 0);
  EXPECT_THAT(chip.driven, ElementsAre(GetParam(), false, false));
}

INSTANTIATE_TEST_SUITE_P(Levels, ADrivenLine, testing::Bool());

TEST_F(AStandingLine, polls_as_readable_until_its_edges_are_taken) {
  pin = ugpio_request_one_named("door", UGPIOF_DIR_IN | UGPIOF_TRIG_RISE);
  EXPECT_EQ(chip.configured.back(), GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_EDGE_RISING);
  const int fd = ugpio_full_open(pin);
  EXPECT_EQ(fd, ugpio_fd(pin));
  const auto shows = [&] {
    pollfd waiting{
        .fd = fd, .events = static_cast<short>(ugpio_edge_condition(pin, G_IO_ERR)), .revents = 0};
    return poll(&waiting, 1, 0) == 1;
  };
  EXPECT_EQ(0, ugpio_take_edges(pin));
  EXPECT_FALSE(shows());
  for (int i = 0; i < 16; i++) {
    chip.pull(i % 2 == 0);
  }
  EXPECT_TRUE(shows());
  EXPECT_EQ(0, ugpio_take_edges(pin));
  EXPECT_FALSE(shows());
}

TEST(LinePins, miss_the_option_for_chips_only) {
  EXPECT_STREQ("CONFIG_GPIO_CDEV", ugpio_kernel_part().option);
  EXPECT_STREQ("/dev/gpiochip*", ugpio_kernel_part().path);
  EXPECT_EQ(nullptr, ugpio_kernel_part().instead);
}

} // namespace

// The chips of this machine are not the test's.

bool gpio_chips_here() {
  return chips_here;
}

std::vector<GpioLine> gpio_lines_of_name(const std::string& name) {
  return lines_by_name[name];
}

std::vector<GpioLine> gpio_lines_of_number(guint number) {
  return lines_by_number[number];
}
