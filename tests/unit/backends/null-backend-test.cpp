#include "support/backend-fixture.h"

namespace {
using ANullPort = BackendTest;
} // namespace

TEST_F(ANullPort, always_reads_low) {
  const auto port = make("null", PORT_OUTPUT);
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Low);
  EXPECT_FALSE(io_port_get_state(port.get()));
  EXPECT_THAT(take_states(), testing::IsEmpty());
}

TEST_F(ANullPort, does_nothing_else) {
  const auto port = make("null", PORT_INPUT);
  EXPECT_EQ(port->backend_private, nullptr);
  io_port_parse_backend_data(port.get(), "device", "path", "/nowhere");
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  port->functions->set_direction(port.get(), Direction::Input);
  EXPECT_FALSE(io_port_is_supervisable(port.get()));
  io_port_close(port.get());
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_EQ(port->backend_private, nullptr);
}
