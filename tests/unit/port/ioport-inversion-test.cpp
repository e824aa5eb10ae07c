#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using AnIoPort = PortTest;

} // namespace

TEST_F(AnIoPort, has_an_inversion_for_each_side) {
  const auto port = make({.type = PORT_IO_CTRL});
  port->activelow_input = true;
  EXPECT_TRUE(io_port_get_activelow(port.get(), PortSide::Input));
  EXPECT_FALSE(io_port_get_activelow(port.get(), PortSide::Output));
}

TEST_F(AnIoPort, refuses_the_inversion_of_a_missing_or_read_only_side) {
  struct Row {
    const char* label;
    PortType type;
    std::vector<const char*> properties;
    PortSide side;
    bool accepted;
  };
  const std::vector<Row> rows{
      {"input side of an output", PORT_OUTPUT, {}, PortSide::Input, false},
      {"output side of an input", PORT_INPUT, {}, PortSide::Output, false},
      {"input side of an input", PORT_INPUT, {}, PortSide::Input, true},
      {"output side of an output", PORT_OUTPUT, {}, PortSide::Output, true},
      {"input side of a configurable", PORT_IO_CTRL, {}, PortSide::Input, true},
      {"output side of a configurable", PORT_IO_CTRL, {}, PortSide::Output, true},
      {"read-only input", PORT_INPUT, {"readonly"}, PortSide::Input, false},
      {"read-only output", PORT_OUTPUT, {"readonly"}, PortSide::Output, false},
      {"read-only trigger", PORT_INPUT, {"readonly_Trig"}, PortSide::Input, false},
      {"read-only active", PORT_OUTPUT, {"readonly_Active"}, PortSide::Output, false},
      {"input with a read-only output side",
       PORT_IO_CTRL,
       {"readonly_Active"},
       PortSide::Input,
       true},
      {"output with a read-only input side",
       PORT_IO_CTRL,
       {"readonly_Trig"},
       PortSide::Output,
       true},
      {"read-only name", PORT_OUTPUT, {"readonly_Name", "readonly_Usage"}, PortSide::Output, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .properties = row.properties, .set_up = false});
    EXPECT_EQ(io_port_set_activelow(port.get(), true, row.side), row.accepted);
    EXPECT_EQ(io_port_get_activelow(port.get(), row.side), row.accepted);
    const auto other = row.side == PortSide::Input ? PortSide::Output : PortSide::Input;
    EXPECT_FALSE(io_port_get_activelow(port.get(), other));
  }
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_settings(), IsEmpty());
}

TEST_F(AnIoPort, accepts_the_inversion_that_it_has_even_when_read_only) {
  const auto port = make({.properties = {"readonly"}});
  EXPECT_TRUE(io_port_set_activelow(port.get(), false, PortSide::Output));
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_settings(), IsEmpty());
}

TEST_F(AnIoPort, reports_anew_when_its_input_is_inverted) {
  const auto port = make({.type = PORT_INPUT, .number = 1});
  give_event(port.get(), "IOPort");
  EXPECT_TRUE(io_port_set_activelow(port.get(), true, PortSide::Input));
  EXPECT_THAT(take_changes(), ElementsAre("1: state=1 input activelow"));
  EXPECT_THAT(take_settings(), ElementsAre("1: input sense=open"));
  EXPECT_THAT(fake_events::take_log(), ElementsAre("send IOPort port=1 state=1"));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());

  EXPECT_TRUE(io_port_set_activelow(port.get(), false, PortSide::Input));
  EXPECT_THAT(take_changes(), ElementsAre("1: state=0 input"));
  EXPECT_THAT(take_settings(), ElementsAre("1: input sense=closed"));
}

TEST_F(AnIoPort, flips_the_line_and_keeps_its_state_when_its_output_is_inverted) {
  for (const bool state : {false, true}) {
    SCOPED_TRACE(state);
    const auto port = make({});
    io_port_set_state(port.get(), state);
    take_changes();
    fake_backend::take_calls();

    EXPECT_TRUE(io_port_set_activelow(port.get(), true, PortSide::Output));
    EXPECT_EQ(io_port_get_state(port.get()), state);
    EXPECT_THAT(fake_backend::take_calls(),
                ElementsAre(state ? "0: set_state 0" : "0: set_state 1"));
    EXPECT_THAT(take_changes(),
                ElementsAre(state ? "0: state=1 activelow" : "0: state=0 activelow"));
    EXPECT_THAT(take_settings(), ElementsAre("0: output sense=open"));

    EXPECT_TRUE(io_port_set_activelow(port.get(), false, PortSide::Output));
    EXPECT_EQ(io_port_get_state(port.get()), state);
    EXPECT_THAT(fake_backend::take_calls(),
                ElementsAre(state ? "0: set_state 1" : "0: set_state 0"));
    EXPECT_THAT(take_changes(), ElementsAre(state ? "0: state=1" : "0: state=0"));
    EXPECT_THAT(take_settings(), ElementsAre("0: output sense=closed"));
  }
}

TEST_F(AnIoPort, stores_the_inversion_of_the_side_not_in_use_silently) {
  const auto input = make({.type = PORT_IO_CTRL, .direction_input = true});
  EXPECT_TRUE(io_port_set_activelow(input.get(), true, PortSide::Output));
  EXPECT_TRUE(input->activelow_output);
  const auto output = make({.type = PORT_IO_CTRL, .direction_input = false});
  EXPECT_TRUE(io_port_set_activelow(output.get(), true, PortSide::Input));
  EXPECT_TRUE(output->activelow_input);
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_settings(), IsEmpty());
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
}

TEST_F(AnIoPort, resets_the_event_filters_when_it_is_inverted) {
  const auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO, .supervised = true});
  IoEvent* const event = give_event(port.get(), "com.norv.Event.Wxd.SupervisedPort");
  event->supervised_input = true;
  io_port_trigger(port.get(), ReportedState(false));
  fake_events::take_log();
  io_port_trigger(port.get(), ReportedState(false));
  EXPECT_THAT(fake_events::take_log(), IsEmpty());

  EXPECT_TRUE(io_port_set_activelow(port.get(), true, PortSide::Input));
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("send com.norv.Event.Wxd.SupervisedPort port=0 tampered=0 state=open"));
}
