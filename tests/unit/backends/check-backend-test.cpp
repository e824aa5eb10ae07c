#include "support/backend-fixture.h"

namespace {
using ACheckPort = BackendTest;
} // namespace

TEST_F(ACheckPort, reads_what_was_stored) {
  const auto port = make("check", PORT_OUTPUT);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Low);
  port->functions->set_state(port.get(), Level::Unknown);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Unknown);
  ASSERT_TRUE(io_port_setup(port.get()));
  EXPECT_FALSE(io_port_get_state(port.get()));
  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_TRUE(io_port_get_state(port.get()));
}

TEST_F(ACheckPort, fails_its_set_up_when_told_to) {
  struct Row {
    const char* label;
    std::vector<std::array<const char*, 3>> attributes;
    bool works;
  };
  const std::vector<Row> rows{
      {"nothing said", {}, true},
      {"told to fail", {{"backend", "setup", "fail"}}, false},
      {"in any element", {{"device", "setup", "fail"}}, false},
      {"other value", {{"backend", "setup", "work"}}, true},
      {"other letter case", {{"backend", "setup", "Fail"}}, true},
      {"other attribute", {{"backend", "teardown", "fail"}}, true},
      {"once is enough", {{"a", "setup", "fail"}, {"a", "setup", "work"}, {"a", "x", "y"}}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make("check", PORT_INPUT);
    for (const auto& [element, key, value] : row.attributes) {
      io_port_parse_backend_data(port.get(), element, key, value);
    }
    EXPECT_EQ(io_port_setup(port.get()), row.works);
    io_port_close(port.get());
    EXPECT_EQ(io_port_setup(port.get()), row.works) << "the same after a close";
  }
}

TEST_F(ACheckPort, keeps_its_state_over_a_second_attachment) {
  const auto port = make("check", PORT_OUTPUT);
  port->functions->set_state(port.get(), Level::High);
  io_port_set_backend(port.get(), BACKEND_CHECK);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::High);
}

TEST_F(ACheckPort, can_be_watched_and_turned) {
  const auto port = make("check", PORT_IO_CTRL);
  ASSERT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_FALSE(io_port_is_supervisable(port.get()));
}
