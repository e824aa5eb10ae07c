#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using AnIoPort = PortTest;

} // namespace

TEST_F(AnIoPort, is_an_input_by_type_and_direction) {
  struct Row {
    PortType type;
    bool direction_input;
    bool input;
  };
  for (const auto& row : {Row{PORT_INPUT, true, true}, Row{PORT_INPUT, false, true},
                          Row{PORT_OUTPUT, true, false}, Row{PORT_OUTPUT, false, false},
                          Row{PORT_IO_CTRL, true, true}, Row{PORT_IO_CTRL, false, false}}) {
    SCOPED_TRACE(testing::Message()
                 << "type " << row.type << ", direction " << row.direction_input);
    const auto port = make({.type = row.type, .direction_input = row.direction_input});
    EXPECT_EQ(io_port_input(port.get()), row.input);
    EXPECT_EQ(io_port_direction_input(port.get()), row.input);
  }
  const auto odd = make({.type = unknown_type});
  EXPECT_FALSE(io_port_input(odd.get()));
}

TEST_F(AnIoPort, changes_direction_only_when_configurable) {
  for (const PortType type : {PORT_INPUT, PORT_OUTPUT}) {
    SCOPED_TRACE(type);
    const auto port = make({.type = type});
    EXPECT_FALSE(io_port_set_direction(port.get(), Direction::Input));
    EXPECT_FALSE(io_port_set_direction(port.get(), Direction::Output));
    EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  }
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(AnIoPort, becomes_an_input_with_a_watch) {
  const auto port = make({.type = PORT_IO_CTRL, .number = 3, .direction_input = false});
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_TRUE(io_port_input(port.get()));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("3: set_direction 1", "3: set_watch"));
  EXPECT_THAT(take_changes(), ElementsAre("3: state=0 input"));
  EXPECT_THAT(take_settings(), ElementsAre("3: direction=input"));
}

TEST_F(AnIoPort, becomes_an_output_without_a_watch) {
  const auto port = make({.type = PORT_IO_CTRL, .number = 3});
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_FALSE(io_port_input(port.get()));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("3: set_direction 0"));
  EXPECT_THAT(take_changes(), ElementsAre("3: state=0"));
  EXPECT_THAT(take_settings(), ElementsAre("3: direction=output"));
}

TEST_F(AnIoPort, reports_again_when_given_the_direction_that_it_has) {
  const auto port = make({.type = PORT_IO_CTRL, .number = 3});
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_THAT(take_changes(), ElementsAre("3: state=0 input", "3: state=0 input"));
}

TEST_F(AnIoPort, only_stores_its_direction_before_it_is_set_up) {
  const auto port = make({.type = PORT_IO_CTRL, .set_up = false});
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_EQ(port->direction, Direction::Output);
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_settings(), IsEmpty());
}

TEST_F(AnIoPort, declares_the_events_that_apply_and_withdraws_the_others_with_its_direction) {
  const auto port = make({.type = PORT_IO_CTRL, .direction_input = false});
  IoEvent* const for_output = give_event(port.get(), "IOPort");
  for_output->input = false;
  IoEvent* const for_input = give_event(port.get(), "IOPort", false);
  for_input->output = false;
  ASSERT_NE(for_output->id, 0U);

  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_EQ(for_output->id, 0U);
  EXPECT_NE(for_input->id, 0U);
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("declare IOPort", "undeclare IOPort", "send IOPort port=0 state=0"));
}

TEST_F(AnIoPort, does_not_report_its_direction_while_disabled) {
  const auto port = make({.type = PORT_IO_CTRL});
  port->enabled = false;
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_settings(), ElementsAre("0: direction=output"));
}
