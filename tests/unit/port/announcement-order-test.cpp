// In which order a change reaches the event system and the services: events first, then
// PortChanged, then the setting that brought it about.
#include "support/port-fixture.h"

using testing::ElementsAre;

namespace {

struct AChange : PortTest {
  /// A port with one event, and nothing said of it so far.
  IoPortRef make_heard(const PortDescription& description) {
    auto port = make(description);
    give_event(port.get(), "IOPort");
    take_history();
    return port;
  }
};

} // namespace

TEST_F(AChange, of_an_outputs_state_is_an_event_before_it_is_a_signal) {
  const auto port = make_heard({.number = 5});
  io_port_set_state(port.get(), true);
  EXPECT_THAT(take_history(), ElementsAre("send IOPort port=5 state=1", "5: state=1"));
}

TEST_F(AChange, that_hardware_reports_is_an_event_before_it_is_a_signal) {
  const auto port = make_heard({.type = PORT_INPUT, .number = 5});
  io_port_trigger(port.get(), ReportedState(true));
  EXPECT_THAT(take_history(), ElementsAre("send IOPort port=5 state=1", "5: state=1 input"));
}

TEST_F(AChange, of_a_virtual_state_is_an_event_before_it_is_a_signal) {
  const auto port = make_heard({.number = 5});
  io_port_set_virtual(port.get(), true);
  EXPECT_THAT(take_history(), ElementsAre("send IOPort port=5 state=1", "5: state=1 virtual_trig"));
}

TEST_F(AChange, of_an_inputs_sense_ends_with_the_setting) {
  const auto port = make_heard({.type = PORT_INPUT, .number = 5});
  io_port_set_activelow(port.get(), true, PortSide::Input);
  EXPECT_THAT(take_history(), ElementsAre("send IOPort port=5 state=1",
                                          "5: state=1 input activelow", "5: input sense=open"));
}

TEST_F(AChange, of_an_outputs_sense_ends_with_the_setting) {
  const auto port = make_heard({.number = 5});
  io_port_set_activelow(port.get(), true, PortSide::Output);
  EXPECT_THAT(take_history(), ElementsAre("send IOPort port=5 state=0", "5: state=0 activelow",
                                          "5: output sense=open"));
}

TEST_F(AChange, of_the_direction_ends_with_the_setting) {
  const auto port = make_heard({.type = PORT_IO_CTRL, .number = 5});
  io_port_set_direction(port.get(), Direction::Output);
  EXPECT_THAT(take_history(),
              ElementsAre("send IOPort port=5 state=0", "5: state=0", "5: direction=output"));
}

TEST_F(AChange, of_a_name_is_announced_before_the_events_carry_it) {
  const auto port = make_heard({.type = PORT_INPUT, .number = 5});
  io_port_set_input_name(port.get(), "door");
  EXPECT_THAT(take_history(),
              ElementsAre("5: input name=door", "undeclare IOPort", "declare IOPort"));
}

// The level goes into the setter as it is, whatever above 0 it may be.
TEST_F(AChange, of_an_outputs_sense_takes_an_unknown_level_for_a_high_one) {
  const auto port = make({.number = 5});
  fake_backend::record(port.get())->level = Level::Unknown;
  io_port_set_activelow(port.get(), true, PortSide::Output);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("5: set_state 0"));
  fake_backend::record(port.get())->level = Level::Unknown;
  io_port_set_activelow(port.get(), false, PortSide::Output);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("5: set_state 0"));
}
