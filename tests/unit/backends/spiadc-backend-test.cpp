#include "support/backend-fixture.h"
#include "support/fake-ioctl.h"

#include "platform/handles.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>

namespace {

/// Level that the converter measures; nothing: the transfer fails.
std::optional<guint8> converter_level;
std::vector<guint8> commands;
std::size_t transfers = 0;

int answer(int /*fd*/, unsigned long request, void* argument) {
  const auto* transfer = static_cast<spi_ioc_transfer*>(argument);
  transfers++;
  if (request != SPI_IOC_MESSAGE(2) || !converter_level) {
    errno = EIO;
    return -1;
  }
  const auto* sent = reinterpret_cast<const guint8*>(transfer[0].tx_buf);
  EXPECT_EQ(transfer[0].len, 2U);
  EXPECT_EQ(transfer[1].len, 2U);
  EXPECT_EQ(sent[0], 0);
  commands.push_back(sent[1]);
  // Bits outside 4 to 11 mean nothing.
  const guint level = *converter_level;
  const std::array<guint8, 2> word{static_cast<guint8>(level << 4U | 0x0FU),
                                   static_cast<guint8>(level >> 4U | 0xF0U)};
  memcpy(reinterpret_cast<void*>(transfer[1].rx_buf), word.data(), word.size());
  return 4;
}

struct ASpiAdcPort : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    fake_ioctl = answer;
    converter_level = 0;
    commands.clear();
  }
  void TearDown() override {
    BackendTest::TearDown();
    fake_ioctl = nullptr;
  }

  static IoPortRef describe(const char* inverted = "false") {
    auto port = make("spiadc", PORT_INPUT);
    const auto tell = [&](const char* element, const char* key, const char* value) {
      io_port_parse_backend_data(port.get(), element, key, value);
    };
    tell("device", "device", "/dev/null");
    tell("device", "timeout", "1");
    tell("device", "address", "0x118");
    tell("device", "inverted", inverted);
    tell("range", "band", "1");
    tell("input", "active_min", "100");
    tell("input", "active_max", "0x96");
    tell("input", "hysteresis", "5");
    return port;
  }

  static IoPortRef watch(const char* inverted = "false") {
    auto port = describe(inverted);
    EXPECT_TRUE(io_port_setup(port.get()));
    EXPECT_TRUE(io_port_set_watch(port.get()));
    return port;
  }

  /// Measures the level a few times and returns the port's state.
  static bool measure(IoPort* port, guint8 level) {
    converter_level = level;
    const std::size_t before = transfers;
    EXPECT_TRUE(run_until([&] { return transfers >= before + 2; }));
    return io_port_get_state(port);
  }
};

TEST_F(ASpiAdcPort, switches_beyond_the_edges_of_its_band) {
  const auto port = watch();
  struct Row {
    guint8 level;
    bool state;
  };
  for (const auto& [level, state] :
       {Row{104, false}, Row{105, true}, Row{96, true}, Row{95, true}, Row{94, false},
        Row{99, false}, Row{145, true}, Row{155, true}, Row{156, false}, Row{150, false}}) {
    EXPECT_EQ(measure(port.get(), level), state) << int{level};
  }
}

TEST_F(ASpiAdcPort, widens_the_outside_when_it_is_inverted) {
  const auto port = watch("true");
  EXPECT_TRUE(measure(port.get(), 50));
  EXPECT_TRUE(measure(port.get(), 104));
  EXPECT_FALSE(measure(port.get(), 105));
  EXPECT_FALSE(measure(port.get(), 96));
  EXPECT_TRUE(measure(port.get(), 94));
}

TEST_F(ASpiAdcPort, starts_inside_a_wide_band_when_it_is_inverted) {
  converter_level = 98;
  const auto port = watch("true");
  EXPECT_FALSE(measure(port.get(), 98));
}

TEST_F(ASpiAdcPort, closes_its_device_and_no_other) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const int input = dup(STDIN_FILENO); // none in some test runs, so one of its own
  const UniqueFd null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  ASSERT_NE(dup2(null.get(), STDIN_FILENO), -1);
  watch().reset(); // the main loop has a descriptor from its first source on
  const auto before = descriptors();
  describe().reset();
  EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "never opened, and yet closed";
  for (int i = 0; i < 2; i++) {
    const auto port = watch();
    EXPECT_TRUE(io_port_setup(port.get())) << "set up anew, by one descriptor";
    EXPECT_EQ(descriptors(), before + 1);
  }
  EXPECT_EQ(descriptors(), before);
  dup2(input, STDIN_FILENO);
  close(input);
}

TEST_F(ASpiAdcPort, sends_the_low_byte_of_its_address) {
  const auto port = watch();
  measure(port.get(), 1);
  ASSERT_FALSE(commands.empty());
  EXPECT_EQ(commands.back(), 0x18);
}

TEST_F(ASpiAdcPort, announces_changes_only) {
  const auto port = watch();
  measure(port.get(), 120);
  measure(port.get(), 121);
  measure(port.get(), 10);
  EXPECT_THAT(take_states(), testing::ElementsAre(true, false));
}

TEST_F(ASpiAdcPort, reads_a_failed_transfer_as_level_0) {
  const auto port = watch();
  EXPECT_TRUE(measure(port.get(), 120));
  converter_level.reset();
  EXPECT_TRUE(run_until([&] { return !io_port_get_state(port.get()); }));
  EXPECT_FALSE(claim_lines("SPI_IOC_MESSAGE failed! : Input/output error").empty());
}

TEST_F(ASpiAdcPort, fails_without_its_device) {
  auto port = describe();
  io_port_parse_backend_data(port.get(), "device", "device", "/nowhere");
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open /nowhere: No such file or directory"));
  port.reset();
  EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1) << "never opened, and yet closed";
}

TEST_F(ASpiAdcPort, opens_a_band_for_each_attribute_of_a_range) {
  const auto port = make("spiadc", PORT_INPUT);
  const auto tell = [&](const char* element, const char* key, const char* value) {
    io_port_parse_backend_data(port.get(), element, key, value);
  };
  tell("device", "device", "/dev/null");
  tell("device", "timeout", "1");
  tell("range", "a", "1");
  tell("range", "b", "1");
  tell("input", "active_min", "10");
  tell("input", "active_max", "20");
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  // The first band was left at level 0.
  EXPECT_TRUE(measure(port.get(), 0));
  EXPECT_FALSE(measure(port.get(), 5));
  EXPECT_TRUE(measure(port.get(), 15));
}

TEST_F(ASpiAdcPort, warns_of_words_out_of_place) {
  const auto port = make("spiadc", PORT_INPUT);
  io_port_parse_backend_data(port.get(), "input", "active_min", "1");
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Spi ADC backend configured incorrectly"));
  io_port_parse_backend_data(port.get(), "output", "pin", "1");
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Could not parse backend data!\n"));
}

} // namespace
