// The kinds of supervised port set up on pins that fail, one step at a time.
#include "backends/supervised-pins.h"

#include "support/backend-fixture.h"
#include "support/fake-ioctl.h"
#include "support/fake-pins.h"

#include <linux/spi/spidev.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr const char* input_call = "iio_setup_gpio: assertion 'libugpio_port_init_gpio_pin"
                                   "(data->input, TRUE, FALSE)' failed";
constexpr const char* ioctrl_call =
    "iio_setup_gpio: assertion 'libugpio_port_init_gpio_pin( data->ioctrl, FALSE, "
    "io_port_direction_input(port) ? 1 : 0)' failed";
constexpr const char* control_call =
    "iio_setup_gpio: assertion 'iio_set_control_pins(port)' failed";

/// A step that fails, by the call to the pin library; what is told, and what only the buffered kind
/// says on top.
struct Step {
  const char* label;
  std::vector<std::string> fault;
  std::vector<std::string> warnings;
  const char* critical;
  /// Whether the failure is one to the SPI kind as well.
  bool counts_to_spi;
};

const std::vector<Step> steps{
    {"input_request", {"request_one 1"}, {"Failed to allocate pin 1/(null)"}, input_call, false},
    {"input_open", {"full_open 1"}, {"Failed to open pin fd!"}, input_call, false},
    {"input_sense", {"set_activelow 1"}, {"Failed set active low!"}, input_call, false},
    {"ioctrl_request", {"request_one 3"}, {"Failed to allocate pin 3/(null)"}, ioctrl_call, false},
    {"ioctrl_open", {"full_open 3"}, {"Failed to open pin fd!"}, ioctrl_call, false},
    {"ioctrl_sense", {"set_activelow 3"}, {"Failed set active high!"}, ioctrl_call, false},
    {"sioctrl_request",
     {"request_named sense"},
     {"Request for gpio pin sense failed."},
     nullptr,
     true},
    {"sioctrl_open", {"full_open sense"}, {"Failed to open gpio pin sense\n"}, nullptr, true},
    {"sioctrl_sense", {"set_activelow sense"}, {"Failed set active low!"}, nullptr, true},
    {"ioctrl_level",
     {"set_value 3"},
     {"Failed to set gpio pin (null): Input/output error", "Failed to set ioctrl pin"},
     control_call,
     false},
    {"sioctrl_level",
     {"set_value sense"},
     {"Failed to set gpio pin sense: Input/output error", "Failed to set sioctrl pin"},
     control_call,
     false},
};

struct ASupervisedPort : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    fake_pins.reset();
    fake_ioctl = [](int, unsigned long, void*) { return 0; };
  }
  void TearDown() override {
    BackendTest::TearDown();
    fake_pins.reset();
    fake_ioctl = nullptr;
  }

  static IoPortRef describe(const char* backend) {
    auto port = make(backend, PORT_INPUT);
    const auto tell = [&](const char* element, const char* key, const char* value) {
      io_port_parse_backend_data(port.get(), element, key, value);
    };
    tell("input", "pin", "1");
    tell("input", "inverted", "true");
    tell("io_ctrl", "pin", "3");
    tell("io_ctrl", "inverted", "no");
    tell("sio_ctrl", "alias", "sense");
    tell("sio_ctrl", "inverted", "true");
    if (g_str_equal(backend, "spi")) {
      tell("device", "path", "/dev/null");
      tell("speed", "value", "1000");
    }
    return port;
  }

  /// Every pin that was requested has been given back.
  static bool nothing_held() {
    const auto count = [](const char* what) {
      return std::ranges::count_if(fake_pins.calls,
                                   [&](const std::string& call) { return call.starts_with(what); });
    };
    const auto refused = std::ranges::count_if(
        fake_pins.faults, [](const std::string& fault) { return fault.starts_with("request"); });
    return count("free") == count("request") - refused;
  }
};

struct ASupervisedPortsPins : ASupervisedPort, testing::WithParamInterface<Step> {
  static void claim_warnings() {
    for (const auto& warning : GetParam().warnings) {
      EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, warning));
    }
  }
};

TEST_P(ASupervisedPortsPins, fail_a_buffered_converters_port_by_the_call) {
  const auto port = describe("iio");
  fake_pins.faults = GetParam().fault;
  EXPECT_FALSE(io_port_setup(port.get()));
  if (GetParam().fault.front() == "set_value 3") {
    // The first level of a pin counts for nothing, only that it can be driven later on.
    EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to set state on port!\n"));
  }
  claim_warnings();
  if (GetParam().critical != nullptr) {
    EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, GetParam().critical));
  }
  EXPECT_TRUE(nothing_held());
}

TEST_P(ASupervisedPortsPins, fail_an_interrupt_converters_port) {
  const auto port = describe("iio-interrupt");
  fake_pins.faults = GetParam().fault;
  EXPECT_FALSE(io_port_setup(port.get()));
  if (GetParam().fault.front() == "set_value 3") {
    EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to set state on port!\n"));
  }
  claim_warnings();
  EXPECT_TRUE(nothing_held());
}

TEST_P(ASupervisedPortsPins, fail_an_spi_port_where_it_cannot_go_on) {
  const auto port = describe("spi");
  fake_pins.faults = GetParam().fault;
  EXPECT_EQ(io_port_setup(port.get()), !GetParam().counts_to_spi);
  claim_warnings();
  // A pin that was not to be had cannot be driven either.
  claim_lines("Failed to set gpio pin");
  claim_lines("Failed to set ioctrl pin");
  EXPECT_EQ(nothing_held(), GetParam().counts_to_spi);
}

INSTANTIATE_TEST_SUITE_P(Steps, ASupervisedPortsPins, testing::ValuesIn(steps),
                         [](const auto& step) { return std::string(step.param.label); });

struct ConverterRow {
  const char* label;
  unsigned long refused;
  const char* warning;
};

struct AnSpiConverter : ASupervisedPort, testing::WithParamInterface<ConverterRow> {};

TEST_P(AnSpiConverter, fails_its_port_when_it_refuses_a_setting) {
  const auto port = describe("spi");
  fake_ioctl = [](int, unsigned long request, void*) {
    errno = EINVAL;
    return request == GetParam().refused ? -1 : 0;
  };
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, GetParam().warning));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open spi device."));
  EXPECT_TRUE(nothing_held());
}

INSTANTIATE_TEST_SUITE_P(Settings, AnSpiConverter,
                         testing::Values(ConverterRow{"word_size", SPI_IOC_WR_BITS_PER_WORD,
                                                      "Failed to set bits per word."},
                                         ConverterRow{"speed", SPI_IOC_WR_MAX_SPEED_HZ,
                                                      "Failed to set max speed."}),
                         [](const auto& row) { return std::string(row.param.label); });

TEST_F(ASupervisedPort, is_told_the_word_size_and_only_a_described_speed) {
  std::vector<std::pair<unsigned long, guint32>> told;
  fake_ioctl = [&](int, unsigned long request, void* argument) {
    const bool byte = request == SPI_IOC_WR_BITS_PER_WORD;
    told.emplace_back(request,
                      byte ? *static_cast<guint8*>(argument) : *static_cast<guint32*>(argument));
    return 0;
  };
  using testing::ElementsAre;
  using testing::Pair;
  const auto port = describe("spi");
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_THAT(std::exchange(told, {}), ElementsAre(Pair(SPI_IOC_WR_BITS_PER_WORD, 16U),
                                                   Pair(SPI_IOC_WR_MAX_SPEED_HZ, 1000U)));
  const auto slow = describe("spi");
  io_port_parse_backend_data(slow.get(), "speed", "value", "0");
  EXPECT_TRUE(io_port_setup(slow.get()));
  EXPECT_THAT(told, ElementsAre(Pair(SPI_IOC_WR_BITS_PER_WORD, 16U)));
}

TEST_F(ASupervisedPort, fails_where_its_spi_device_cannot_be_opened) {
  const auto port = describe("spi");
  io_port_parse_backend_data(port.get(), "device", "path", "/dev/none");
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open SPI device."));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open spi device."));
  EXPECT_TRUE(nothing_held());
}

TEST_F(ASupervisedPort, takes_the_path_alone_for_its_spi_device) {
  const auto port = describe("spi");
  io_port_parse_backend_data(port.get(), "device", "colour", "/dev/none");
  io_port_parse_backend_data(port.get(), "lamp", "path", "/dev/none");
  EXPECT_TRUE(io_port_setup(port.get()));
}

using ASupervisedPortDeathTest = ASupervisedPort;

TEST_F(ASupervisedPortDeathTest, ends_the_process_when_an_output_is_to_be_routed) {
  const auto port = make("spi", PORT_OUTPUT);
  SupervisedLine line(*port, {});
  EXPECT_DEATH(line.set_control_pins(), "assertion failed: \\(port->type == PORT_INPUT\\)");
}

TEST_F(ASupervisedPortDeathTest, ends_the_process_without_the_second_control_pin) {
  for (const char* const backend : {"spi", "iio"}) {
    EXPECT_DEATH(
        {
          const auto port = make(backend, PORT_INPUT);
          io_port_parse_backend_data(port.get(), "input", "pin", "1");
          io_port_parse_backend_data(port.get(), "io_ctrl", "pin", "3");
          io_port_setup(port.get());
        },
        "assertion failed: \\(data->sioctrl != NULL\\)");
  }
}

} // namespace
