// A supervised port on a converter and pins that are faked: what is polled, reported and driven.
#include "support/backend-fixture.h"
#include "support/fake-ioctl.h"
#include "support/fake-pins.h"

#include <linux/spi/spidev.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

namespace {

using testing::ElementsAre;

/// What the converter measures; nothing: the transfer fails.
std::optional<guint8> converter_level;
std::vector<guint8> commands;
std::vector<int> descriptors;
std::vector<unsigned long> settings;

int answer(int fd, unsigned long request, void* argument) {
  if (request != SPI_IOC_MESSAGE(2)) {
    settings.push_back(request);
    return 0;
  }
  const auto* transfer = static_cast<spi_ioc_transfer*>(argument);
  commands.push_back(reinterpret_cast<const guint8*>(transfer[0].tx_buf)[1]);
  descriptors.push_back(fd);
  if (!converter_level) {
    errno = EIO;
    return -1;
  }
  const guint level = *converter_level;
  const std::array<guint8, 2> word{static_cast<guint8>(level << 4U),
                                   static_cast<guint8>(level >> 4U)};
  memcpy(reinterpret_cast<void*>(transfer[1].rx_buf), word.data(), word.size());
  return 4;
}

constexpr guint8 closed_level = 50;
constexpr guint8 cut_level = 220;

struct ASupervisedSpiPort : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    fake_pins.reset();
    fake_ioctl = answer;
    converter_level = closed_level;
    commands.clear();
    descriptors.clear();
    settings.clear();
  }
  void TearDown() override {
    BackendTest::TearDown();
    fake_pins.reset();
    fake_ioctl = nullptr;
  }

  static void tell(const IoPortRef& port, const char* element, const char* key, const char* value) {
    io_port_parse_backend_data(port.get(), element, key, value);
  }

  static IoPortRef describe(PortType type = PORT_INPUT) {
    auto port = make("spi", type);
    port->supervised = true;
    tell(port, "input", "pin", "1");
    if (type == PORT_IO_CTRL) {
      tell(port, "output", "pin", "2");
    }
    tell(port, "io_ctrl", "pin", "3");
    tell(port, "sio_ctrl", "alias", "sense");
    tell(port, "device", "path", "/dev/null");
    tell(port, "address", "value", "18");
    for (const auto& [state, lower, upper] :
         {std::array{"closed", "0", "100"}, std::array{"open", "101", "200"},
          std::array{"cut", "201", "255"}}) {
      tell(port, "range", "state", state);
      tell(port, "range", "lower", lower);
      tell(port, "range", "upper", upper);
    }
    return port;
  }

  static IoPortRef watch(PortType type = PORT_INPUT) {
    auto port = describe(type);
    EXPECT_TRUE(io_port_setup(port.get()));
    EXPECT_TRUE(io_port_set_watch(port.get()));
    return port;
  }

  static SupervisedState read(const IoPortRef& port) {
    const auto readout = io_port_get_supervised_readout(port.get(), nullptr);
    return readout ? readout->state : SUPERVISED_UNDEFINED;
  }

  /// The pins that were driven since the last call, and how.
  static std::vector<std::string> take_driven() {
    std::vector<std::string> driven;
    for (const auto& call : std::exchange(fake_pins.calls, {})) {
      if (call.starts_with("set_value") || call.starts_with("direction_output")) {
        driven.push_back(call);
      }
    }
    return driven;
  }
};

TEST_F(ASupervisedSpiPort, is_polled_four_times_a_second) {
  const auto port = watch();
  EXPECT_GT(next_timer_ms(), 0);
  EXPECT_LE(next_timer_ms(), 250);
}

TEST_F(ASupervisedSpiPort, asks_its_converter_at_a_hexadecimal_address) {
  const auto port = watch();
  EXPECT_EQ(read(port), SUPERVISED_CLOSED);
  EXPECT_THAT(commands, ElementsAre(0x18));
}

TEST_F(ASupervisedSpiPort, leaves_the_clock_alone_unless_it_is_described) {
  const auto port = watch();
  EXPECT_THAT(settings, ElementsAre(SPI_IOC_WR_BITS_PER_WORD));
}

TEST_F(ASupervisedSpiPort, has_one_of_the_first_six_numbers) {
  const auto last = describe();
  last->number = 5;
  EXPECT_TRUE(io_port_setup(last.get()));
  const auto beyond = describe();
  beyond->number = 6;
  EXPECT_FALSE(io_port_setup(beyond.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING,
                     "Port 6 cannot be an spi port: only numbers 0 to 5 can be supervised by it"));
}

TEST_F(ASupervisedSpiPort, reports_its_state_once_and_anew_when_it_comes_back) {
  const auto port = watch();
  ASSERT_TRUE(run_until([] { return states() == 1; }));
  ASSERT_TRUE(run_until([] { return commands.size() >= 3; }));
  EXPECT_EQ(take_states().size(), 1U);

  io_port_close(port.get());
  ASSERT_TRUE(io_port_setup(port.get()));
  ASSERT_TRUE(io_port_set_watch(port.get()));
  EXPECT_TRUE(run_until([] { return states() == 1; }));
}

TEST_F(ASupervisedSpiPort, trusts_a_converter_that_failed_no_more) {
  const auto port = watch();
  converter_level = std::nullopt;
  EXPECT_EQ(read(port), SUPERVISED_UNDEFINED);
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Error: Input/output error"));
  converter_level = cut_level;
  read(port);
  ASSERT_EQ(descriptors.size(), 2U);
  EXPECT_GE(descriptors[0], 0);
  EXPECT_EQ(descriptors[1], -1);
}

TEST_F(ASupervisedSpiPort, is_not_polled_as_an_output) {
  const auto port = watch(PORT_IO_CTRL);
  ASSERT_FALSE(nothing_timed());
  ASSERT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_TRUE(nothing_timed());
}

TEST_F(ASupervisedSpiPort, is_not_polled_when_it_is_no_longer_supervised) {
  const auto port = watch();
  ASSERT_TRUE(io_port_set_supervised(port.get(), false));
  EXPECT_TRUE(nothing_timed());
}

TEST_F(ASupervisedSpiPort, starts_its_output_pin_quiet_while_it_is_an_input) {
  const auto request = [](Direction direction, bool activelow) {
    const auto port = describe(PORT_IO_CTRL);
    port->direction = direction;
    port->activelow_output = activelow;
    fake_pins.calls.clear();
    EXPECT_TRUE(io_port_setup(port.get()));
    const auto is_output = [](const std::string& call) {
      return call.starts_with("request_one 2 ");
    };
    return *std::ranges::find_if(fake_pins.calls, is_output);
  };
  const auto quiet = request(Direction::Input, false);
  EXPECT_EQ(request(Direction::Input, true), quiet);
  EXPECT_EQ(request(Direction::Output, false), quiet);
  EXPECT_NE(request(Direction::Output, true), quiet);
}

TEST_F(ASupervisedSpiPort, drives_its_line_only_while_nothing_measures_it) {
  const auto port = watch(PORT_IO_CTRL);
  port->activelow_output = true;
  take_driven();
  ASSERT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_THAT(take_driven(), ElementsAre("set_value 3 0", "set_value sense 0", "set_value 2 1"));
  ASSERT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_THAT(take_driven(), ElementsAre("set_value 2 0", "set_value 3 0", "set_value sense 1"));
}

TEST_F(ASupervisedSpiPort, takes_each_range_by_itself) {
  const auto port = describe();
  EXPECT_EQ(io_port_get_supervised_ranges(port.get())->size(), 3U);
  tell(port, "range", "lower", "1");
  tell(port, "range", "upper", "2");
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to configure port: State is undefined.\n"));
  tell(port, "range", "state", "short");
  tell(port, "range", "upper", "0");
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to configure port: Invalid range.\n"));
  EXPECT_EQ(io_port_get_supervised_ranges(port.get())->size(), 3U);
}

} // namespace
