#include "support/backend-fixture.h"

namespace {
using AVirtualPort = BackendTest;
} // namespace

TEST_F(AVirtualPort, reads_what_was_stored) {
  const auto port = make("virtual", PORT_OUTPUT);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Low);
  for (const Level level : {Level::High, Level::Low}) {
    port->functions->set_state(port.get(), level);
    EXPECT_EQ(port->functions->get_state(port.get()), level);
  }
}

TEST_F(AVirtualPort, keeps_its_state_over_a_second_attachment) {
  const auto port = make("virtual", PORT_OUTPUT);
  port->functions->set_state(port.get(), Level::High);
  io_port_set_backend(port.get(), BACKEND_VIRTUAL);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::High);
}

TEST_F(AVirtualPort, starts_low_again_after_a_close) {
  const auto port = make("virtual", PORT_OUTPUT);
  ASSERT_TRUE(io_port_setup(port.get()));
  io_port_set_virtual(port.get(), true);
  EXPECT_TRUE(io_port_get_state(port.get()));
  io_port_close(port.get());
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Low);
  ASSERT_TRUE(io_port_setup(port.get()));
  EXPECT_FALSE(io_port_get_state(port.get()));
}

TEST_F(AVirtualPort, does_nothing_else) {
  const auto port = make("virtual", PORT_INPUT);
  io_port_parse_backend_data(port.get(), "device", "path", "/nowhere");
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  port->functions->set_direction(port.get(), Direction::Input);
  EXPECT_FALSE(io_port_is_supervisable(port.get()));
}
