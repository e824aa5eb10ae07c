#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using AnIoPort = PortTest;

} // namespace

TEST_F(AnIoPort, inverts_its_level_by_the_side_in_use) {
  struct Row {
    const char* label;
    PortType type = PORT_INPUT;
    bool direction_input = true;
    bool activelow_input = false;
    bool activelow_output = false;
    Level level = Level::Low;
    bool state = false;
  };
  constexpr std::array rows{
      Row{.label = "input low"},
      Row{.label = "input high", .level = Level::High, .state = true},
      Row{.label = "inverted input low", .activelow_input = true, .state = true},
      Row{.label = "inverted input high", .activelow_input = true, .level = Level::High},
      Row{.label = "input ignores the output side",
          .activelow_output = true,
          .level = Level::High,
          .state = true},
      Row{.label = "output low", .type = PORT_OUTPUT},
      Row{.label = "output high", .type = PORT_OUTPUT, .level = Level::High, .state = true},
      Row{.label = "inverted output low",
          .type = PORT_OUTPUT,
          .activelow_output = true,
          .state = true},
      Row{.label = "inverted output high",
          .type = PORT_OUTPUT,
          .activelow_output = true,
          .level = Level::High},
      Row{.label = "output ignores the input side",
          .type = PORT_OUTPUT,
          .activelow_input = true,
          .level = Level::High,
          .state = true},
      Row{.label = "configurable as input",
          .type = PORT_IO_CTRL,
          .activelow_input = true,
          .state = true},
      Row{.label = "configurable as output",
          .type = PORT_IO_CTRL,
          .direction_input = false,
          .activelow_input = true},
      Row{.label = "configurable as inverted output",
          .type = PORT_IO_CTRL,
          .direction_input = false,
          .activelow_output = true,
          .state = true},
      Row{.label = "unknown level", .level = Level::Unknown},
      Row{.label = "unknown level of an inverted input",
          .activelow_input = true,
          .level = Level::Unknown},
      Row{.label = "unknown level of an inverted output",
          .type = PORT_OUTPUT,
          .activelow_output = true,
          .level = Level::Unknown},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .direction_input = row.direction_input});
    port->activelow_input = row.activelow_input;
    port->activelow_output = row.activelow_output;
    fake_backend::record(port.get())->level = row.level;
    EXPECT_EQ(io_port_get_state(port.get()), row.state);
  }
}

TEST_F(AnIoPort, reads_low_until_it_is_set_up) {
  const auto port = make({.type = PORT_INPUT, .set_up = false});
  fake_backend::record(port.get())->level = Level::High;
  EXPECT_FALSE(io_port_get_state(port.get()));
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(io_port_get_state(port.get()));
}

TEST_F(AnIoPort, writes_an_output_and_announces_the_change_once) {
  const auto port = make({.number = 4});
  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("4: set_state 1"));
  EXPECT_THAT(take_changes(), ElementsAre("4: state=1"));

  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("4: set_state 1"));
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(AnIoPort, writes_the_inverted_level_when_the_output_is_active_low) {
  const auto port = make({});
  port->activelow_output = true;
  EXPECT_TRUE(io_port_set_state(port.get(), false));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: set_state 1"));
  EXPECT_THAT(take_changes(), ElementsAre("0: state=0 activelow"));
}

TEST_F(AnIoPort, refuses_a_state_where_there_is_no_hardware_output) {
  struct Row {
    const char* label;
    PortDescription port;
  };
  const std::vector<Row> rows{
      {"input", {.type = PORT_INPUT}},
      {"configurable as input", {.type = PORT_IO_CTRL, .direction_input = true}},
      {"virtual", {.backend = BACKEND_VIRTUAL}},
      {"not set up", {.set_up = false}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make(row.port);
    EXPECT_FALSE(io_port_set_state(port.get(), true));
    EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Set state on incorrect port"));
    EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  }
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(AnIoPort, stays_silent_when_disabled_but_drives_its_hardware) {
  const auto port = make({});
  give_event(port.get(), "IOPort");
  port->enabled = false;
  EXPECT_TRUE(io_port_set_state(port.get(), true));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: set_state 1"));
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(fake_events::take_log(), IsEmpty());
}

TEST_F(AnIoPort, announces_every_virtual_state) {
  const auto port = make({.type = PORT_INPUT, .number = 7});
  EXPECT_TRUE(io_port_set_virtual(port.get(), true));
  EXPECT_TRUE(io_port_set_virtual(port.get(), true));
  EXPECT_THAT(take_changes(),
              ElementsAre("7: state=1 input virtual_trig", "7: state=1 input virtual_trig"));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
}

TEST_F(AnIoPort, stores_virtual_states_in_virtual_outputs_only) {
  struct Row {
    const char* label;
    BackendKind backend;
    PortType type;
    bool stored;
  };
  for (const auto& row : {Row{"virtual output", BACKEND_VIRTUAL, PORT_OUTPUT, true},
                          Row{"virtual input", BACKEND_VIRTUAL, PORT_INPUT, false},
                          Row{"virtual configurable", BACKEND_VIRTUAL, PORT_IO_CTRL, false},
                          Row{"hardware output", BACKEND_GPIO, PORT_OUTPUT, false}}) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .backend = row.backend});
    port->activelow_output = true;
    EXPECT_TRUE(io_port_set_virtual(port.get(), true));
    EXPECT_THAT(fake_backend::take_calls(), row.stored ? Texts{"0: set_state 1"} : Texts{});
  }
}

TEST_F(AnIoPort, ignores_virtual_states_and_triggers_while_disabled) {
  const auto port = make({.backend = BACKEND_VIRTUAL});
  port->enabled = false;
  EXPECT_TRUE(io_port_set_virtual(port.get(), true));
  io_port_trigger(port.get(), ReportedState(true));
  io_port_send_signal(port.get(), Trigger::Hardware, ReportedState(true));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(AnIoPort, passes_a_trigger_on) {
  const auto port = make({.type = PORT_INPUT, .number = 2});
  give_event(port.get(), "IOPort");
  io_port_trigger(port.get(), ReportedState(true));
  EXPECT_THAT(take_changes(), ElementsAre("2: state=1 input"));
  EXPECT_THAT(fake_events::take_log(), ElementsAre("send IOPort port=2 state=1"));

  io_port_trigger(port.get(), ReportedState(SUPERVISED_CUT));
  EXPECT_THAT(take_changes(), ElementsAre("2: state=1 input"));
}

TEST_F(AnIoPort, shows_its_properties_and_its_side_in_the_announcement) {
  struct Row {
    const char* label;
    PortDescription port;
    bool activelow_input;
    bool activelow_output;
    const char* announced;
  };
  const std::vector<Row> rows{
      {"plain output", {}, true, false, "0: state=1"},
      {"inverted output", {}, false, true, "0: state=1 activelow"},
      {"inverted input", {.type = PORT_INPUT}, true, false, "0: state=1 input activelow"},
      {"input of an inverted output", {.type = PORT_INPUT}, false, true, "0: state=1 input"},
      {"virtual", {.properties = {"virtual"}}, false, false, "0: state=1 virtual"},
      {"hidden", {.properties = {"hidden"}}, false, false, "0: state=1 hidden"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make(row.port);
    port->activelow_input = row.activelow_input;
    port->activelow_output = row.activelow_output;
    io_port_send_signal(port.get(), Trigger::Hardware, ReportedState(true));
    EXPECT_THAT(take_changes(), ElementsAre(row.announced));
  }
}

TEST_F(AnIoPort, sends_only_the_events_that_fit_what_it_is) {
  struct Row {
    const char* label;
    bool input_flag;
    bool output_flag;
    bool supervised_flag;
    PortType type;
    bool supervised;
    bool sent;
  };
  constexpr std::array rows{
      Row{"input event on an input", true, false, false, PORT_INPUT, false, true},
      Row{"output event on an input", false, true, false, PORT_INPUT, false, false},
      Row{"input event on an output", true, false, false, PORT_OUTPUT, false, false},
      Row{"output event on an output", false, true, false, PORT_OUTPUT, false, true},
      Row{"supervised event on a plain input", false, false, true, PORT_INPUT, false, false},
      Row{"supervised event on a supervised input", false, false, true, PORT_INPUT, true, true},
      Row{"input event on a supervised input", true, false, false, PORT_INPUT, true, true},
      Row{"supervised event on an output", false, false, true, PORT_OUTPUT, true, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port =
        make({.type = row.type, .backend = BACKEND_IIO, .supervised = row.supervised});
    IoEvent* const event = give_event(port.get(), "IOPort");
    event->input = row.input_flag;
    event->output = row.output_flag;
    event->supervised_input = row.supervised_flag;
    io_port_send_events(port.get(), ReportedState(true));
    EXPECT_EQ(fake_events::take_log().size(), row.sent ? 1U : 0U);
  }
}
