#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

using AnIoPort = PortTest;
using AnIoPortDeathTest = PortTest;

} // namespace

TEST_F(AnIoPort, starts_with_the_documented_defaults) {
  const IoPortRef port = io_port_new();
  EXPECT_EQ(port->type, PORT_INPUT);
  EXPECT_EQ(port->backend, BACKEND_VIRTUAL);
  EXPECT_EQ(port->backend_private, nullptr);
  EXPECT_EQ(port->functions, nullptr);
  EXPECT_EQ(g_hash_table_size(port->properties), 0U);
  EXPECT_FALSE(port->name);
  EXPECT_FALSE(port->input_name);
  EXPECT_FALSE(port->output_name);
  EXPECT_EQ(port->usage, "");
  EXPECT_EQ(port->number, -1);
  EXPECT_FALSE(port->activelow_output);
  EXPECT_FALSE(port->activelow_input);
  EXPECT_EQ(port->direction, Direction::Input);
  EXPECT_FALSE(port->supervised);
  EXPECT_EQ(port->button_type, BUTTON_NONE);
  EXPECT_EQ(port->pulse_time, 0U);
  EXPECT_TRUE(port->events.empty());
  EXPECT_TRUE(port->ranges.empty());
  EXPECT_TRUE(port->enabled);
  EXPECT_FALSE(port->is_setup);
  EXPECT_FALSE(port->gate.busy());
  EXPECT_EQ(port->refcount, 1U);
  EXPECT_FALSE(port->optional);
  EXPECT_EQ(port->delay_time, 0);
  EXPECT_EQ(port->mode, PORT_MODE_BISTABLE);
  EXPECT_EQ(port->spare_count, 1U);
}

TEST_F(AnIoPort, has_texts_for_its_button_types_and_modes) {
  EXPECT_THAT(button_type_string, ElementsAre(testing::StrEq("none"), testing::StrEq("pulse"),
                                              testing::StrEq("actinact")));
  EXPECT_THAT(port_mode_string, ElementsAre(testing::StrEq(""), testing::StrEq("monostable"),
                                            testing::StrEq("bistable")));
}

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

namespace {

std::string name_of(IoPort* port) {
  g_autofree gchar* name = io_port_get_name(port);
  return name != nullptr ? name : "(none)";
}

std::string names_of(IoPort* port) {
  g_autofree gchar* input = g_strdup("untouched");
  g_autofree gchar* output = g_strdup("untouched");
  gchar* new_input = input;
  gchar* new_output = output;
  io_port_get_names(port, &new_input, &new_output);
  const std::string text = std::string(new_input != nullptr ? new_input : "(none)") + '/'
                           + (new_output != nullptr ? new_output : "(none)");
  if (new_input != input) {
    g_free(new_input);
  }
  if (new_output != output) {
    g_free(new_output);
  }
  return text;
}

} // namespace

TEST_F(AnIoPort, has_the_name_of_its_current_side) {
  struct Row {
    PortType type;
    bool direction_input;
    const char* name;
    const char* names;
  };
  for (const auto& row :
       {Row{PORT_INPUT, true, "in", "in/untouched"}, Row{PORT_OUTPUT, true, "out", "untouched/out"},
        Row{PORT_IO_CTRL, true, "in", "in/out"}, Row{PORT_IO_CTRL, false, "out", "in/out"},
        Row{unknown_type, true, "(none)", "untouched/untouched"}}) {
    SCOPED_TRACE(testing::Message()
                 << "type " << row.type << ", direction " << row.direction_input);
    const auto port = make({.type = row.type, .direction_input = row.direction_input});
    port->input_name = "in";
    port->output_name = "out";
    EXPECT_EQ(name_of(port.get()), row.name);
    EXPECT_EQ(names_of(port.get()), row.names);
  }
}

TEST_F(AnIoPort, may_have_no_name) {
  const auto port = make({.type = PORT_IO_CTRL});
  EXPECT_EQ(name_of(port.get()), "(none)");
  EXPECT_EQ(names_of(port.get()), "(none)/(none)");
}

TEST_F(AnIoPort, complains_when_asked_for_the_name_of_no_port) {
  EXPECT_EQ(io_port_get_name(nullptr), nullptr);
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, "io_port_get_name: assertion 'ioport' failed"));
  EXPECT_EQ(io_port_get_usage(nullptr), nullptr);
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, "io_port_get_usage: assertion 'ioport' failed"));
  gchar* untouched = nullptr;
  io_port_get_names(nullptr, &untouched, &untouched);
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, "io_port_get_names: assertion 'ioport' failed"));
}

TEST_F(AnIoPort, takes_names_for_the_sides_that_it_has) {
  struct Row {
    const char* label;
    PortType type;
    std::vector<const char*> properties;
    bool input_accepted;
    bool output_accepted;
  };
  const std::vector<Row> rows{
      {"input", PORT_INPUT, {}, true, false},
      {"output", PORT_OUTPUT, {}, false, true},
      {"configurable", PORT_IO_CTRL, {}, true, true},
      {"read-only", PORT_IO_CTRL, {"readonly"}, false, false},
      {"read-only name", PORT_IO_CTRL, {"readonly_Name"}, false, false},
      {"read-only usage", PORT_IO_CTRL, {"readonly_Usage"}, true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .properties = row.properties});
    EXPECT_EQ(io_port_set_input_name(port.get(), "in"), row.input_accepted);
    EXPECT_EQ(io_port_set_output_name(port.get(), "out"), row.output_accepted);
    EXPECT_EQ(port->input_name, row.input_accepted ? OptionalText("in") : std::nullopt);
    EXPECT_EQ(port->output_name, row.output_accepted ? OptionalText("out") : std::nullopt);
    Texts announced;
    if (row.input_accepted) {
      announced.emplace_back("0: input name=in");
    }
    if (row.output_accepted) {
      announced.emplace_back("0: output name=out");
    }
    EXPECT_EQ(take_settings(), announced);
  }
  EXPECT_FALSE(io_port_set_input_name(nullptr, "in"));
  EXPECT_FALSE(io_port_set_output_name(nullptr, "out"));
}

TEST_F(AnIoPort, accepts_the_name_that_it_has_even_when_read_only) {
  const auto port = make({.type = PORT_INPUT, .properties = {"readonly"}});
  EXPECT_TRUE(io_port_set_input_name(port.get(), nullptr));
  port->input_name = "door";
  EXPECT_TRUE(io_port_set_input_name(port.get(), "door"));
  EXPECT_FALSE(io_port_set_input_name(port.get(), nullptr));
  EXPECT_THAT(take_settings(), IsEmpty());
}

TEST_F(AnIoPort, declares_its_events_again_when_the_side_in_use_is_renamed) {
  struct Row {
    const char* label;
    PortType type;
    bool direction_input;
    bool input_side;
    bool declared_again;
  };
  for (const auto& row :
       {Row{"input", PORT_INPUT, true, true, true}, Row{"output", PORT_OUTPUT, true, false, true},
        Row{"configurable as input, input side", PORT_IO_CTRL, true, true, true},
        Row{"configurable as output, input side", PORT_IO_CTRL, false, true, false},
        Row{"configurable as input, output side", PORT_IO_CTRL, true, false, false},
        Row{"configurable as output, output side", PORT_IO_CTRL, false, false, true}}) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .direction_input = row.direction_input});
    IoEvent* const event = give_event(port.get(), "IOPort");
    EXPECT_TRUE(row.input_side ? io_port_set_input_name(port.get(), "new")
                               : io_port_set_output_name(port.get(), "new"));
    const Texts again{"undeclare IOPort", "declare IOPort"};
    EXPECT_EQ(fake_events::take_log(), row.declared_again ? again : Texts{});
    EXPECT_EQ(fake_events::declaration(event->id).key("port").value_nice_name,
              row.declared_again ? OptionalText("new") : std::nullopt);
  }
}

TEST_F(AnIoPort, keeps_its_usage_and_tells_of_changes) {
  const auto port = make({.number = 6});
  g_autofree gchar* before = io_port_get_usage(port.get());
  EXPECT_STREQ(before, "");
  give_event(port.get(), "IOPort");
  EXPECT_TRUE(io_port_set_usage(port.get(), "door lock"));
  EXPECT_TRUE(io_port_set_usage(port.get(), "door lock"));
  g_autofree gchar* after = io_port_get_usage(port.get());
  EXPECT_STREQ(after, "door lock");
  EXPECT_THAT(take_settings(), ElementsAre("6: usage=door lock"));
  EXPECT_THAT(fake_events::take_log(), IsEmpty());
  EXPECT_FALSE(io_port_set_usage(nullptr, "x"));
}

TEST_F(AnIoPort, guards_its_usage_when_read_only) {
  for (const char* property : {"readonly", "readonly_Usage"}) {
    SCOPED_TRACE(property);
    const auto port = make({.properties = {property}});
    EXPECT_TRUE(io_port_set_usage(port.get(), ""));
    EXPECT_FALSE(io_port_set_usage(port.get(), "new"));
    EXPECT_EQ(port->usage, "");
  }
  EXPECT_TRUE(io_port_set_usage(make({.properties = {"readonly_Name"}}).get(), "new"));
}

TEST_F(AnIoPort, stores_properties_as_booleans) {
  struct Row {
    const char* text;
    bool value;
  };
  const auto port = make({.properties = {}});
  for (const auto& row :
       {Row{"true", true}, Row{"TRUE", true}, Row{"True", true}, Row{"false", false},
        Row{"1", false}, Row{"", false}, Row{"yes", false}, Row{"true ", false}}) {
    SCOPED_TRACE(row.text);
    io_port_add_property(port.get(), "key", row.text);
    EXPECT_EQ(io_port_get_property(port.get(), "key"), row.value);
    bool found = !row.value;
    EXPECT_TRUE(io_port_lookup_property(port.get(), "key", &found));
    EXPECT_EQ(found, row.value);
  }
  bool untouched = true;
  EXPECT_FALSE(io_port_lookup_property(port.get(), "other", &untouched));
  EXPECT_TRUE(untouched);
  EXPECT_FALSE(io_port_get_property(port.get(), "other"));
  EXPECT_FALSE(io_port_get_property(port.get(), "KEY"));
}

TEST_F(AnIoPort, lists_its_properties_in_pairs) {
  const auto port = make({.properties = {"ioport"}});
  io_port_add_property(port.get(), "hidden", "false");
  g_autoptr(GList) keys = io_port_get_property_keys(port.get());
  g_autoptr(GList) values = io_port_get_property_values(port.get());
  std::vector<std::pair<std::string, bool>> pairs;
  for (const GList *key = keys, *value = values; key != nullptr;
       key = key->next, value = value->next) {
    ASSERT_NE(value, nullptr);
    pairs.emplace_back(static_cast<const char*>(key->data), GPOINTER_TO_INT(value->data) != 0);
  }
  EXPECT_THAT(pairs, UnorderedElementsAre(std::pair("ioport", true), std::pair("hidden", false)));
}

TEST_F(AnIoPort, has_no_property_without_a_table) {
  const auto port = make({});
  g_clear_pointer(&port->properties, g_hash_table_unref);
  EXPECT_FALSE(io_port_get_property(port.get(), "ioport"));
}

TEST_F(AnIoPort, declares_its_events_when_enabled_and_withdraws_them_when_disabled) {
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "IOPort");
  io_port_set_enabled(port.get(), true);
  EXPECT_THAT(fake_events::take_log(), IsEmpty());

  io_port_set_enabled(port.get(), false);
  EXPECT_FALSE(port->enabled);
  EXPECT_EQ(event->id, 0U);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("undeclare IOPort"));
  io_port_set_enabled(port.get(), false);
  EXPECT_THAT(fake_events::take_log(), IsEmpty());

  io_port_set_enabled(port.get(), true);
  EXPECT_NE(event->id, 0U);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("declare IOPort"));
}

TEST_F(AnIoPort, takes_part_in_the_any_port_event_while_enabled) {
  const auto port = make({});
  EXPECT_FALSE(io_port_got_port_any(port.get()));
  give_event(port.get(), "IOPort", false);
  EXPECT_FALSE(io_port_got_port_any(port.get()));
  give_event(port.get(), "PortAny", false);
  EXPECT_TRUE(io_port_got_port_any(port.get()));
  port->enabled = false;
  EXPECT_FALSE(io_port_got_port_any(port.get()));
}

TEST_F(AnIoPort, resets_the_filter_of_every_event) {
  const auto port = make({});
  IoEvent* const first = give_event(port.get(), "IOPort", false);
  IoEvent* const second = give_event(port.get(), "Known", false);
  io_port_reset_event_filters(port.get());
  EXPECT_TRUE(first->filter_reset);
  EXPECT_TRUE(second->filter_reset);
}

TEST_F(AnIoPort, accepts_known_modes_only) {
  const auto port = make({});
  for (const guint mode : {0U, 3U, G_MAXUINT}) {
    EXPECT_FALSE(io_port_set_mode(port.get(), static_cast<PortMode>(mode)));
    EXPECT_EQ(io_port_get_mode(port.get()), PORT_MODE_BISTABLE);
  }
  EXPECT_TRUE(io_port_set_mode(port.get(), PORT_MODE_MONOSTABLE));
  EXPECT_EQ(io_port_get_mode(port.get()), PORT_MODE_MONOSTABLE);
  EXPECT_EQ(io_port_get_mode(nullptr), 0U);
}

TEST_F(AnIoPort, keeps_a_delay_and_a_spare_count) {
  const auto port = make({});
  io_port_set_delay_time(port.get(), -1);
  EXPECT_EQ(io_port_get_delay_time(port.get()), -1);
  io_port_set_delay_time(port.get(), 250);
  EXPECT_EQ(io_port_get_delay_time(port.get()), 250);
  EXPECT_EQ(io_port_get_delay_time(nullptr), -1);
  io_port_set_spare_count(port.get(), 0);
  EXPECT_EQ(io_port_get_spare_count(port.get()), 1U);
  io_port_set_spare_count(port.get(), 9);
  EXPECT_EQ(io_port_get_spare_count(port.get()), 9U);
}

TEST_F(AnIoPortDeathTest, ends_the_process_when_misused) {
  EXPECT_DEATH(io_port_direction_input(nullptr), "'ioport' should not be NULL");
  EXPECT_DEATH(io_port_set_direction(nullptr, Direction::Input), "'ioport' should not be NULL");
  EXPECT_DEATH(io_port_get_state(nullptr), "'ioport' should not be NULL");
  EXPECT_DEATH(io_port_set_state(nullptr, true), "'ioport' should not be NULL");
  EXPECT_DEATH(io_port_set_virtual(nullptr, true), "'ioport' should not be NULL");
  EXPECT_DEATH(io_port_set_activelow(nullptr, true, PortSide::Input),
               "'ioport' should not be NULL");
}

TEST_F(AnIoPortDeathTest, ends_the_process_without_an_operation_table) {
  const IoPortRef port = io_port_new();
  EXPECT_DEATH(io_port_input(port.get()), "port->functions != NULL");
  EXPECT_DEATH(io_port_send_signal(port.get(), Trigger::Hardware, ReportedState(true)),
               "port->functions != NULL");
  EXPECT_DEATH(io_port_setup(port.get()), "'ioport->functions' should not be NULL");
  EXPECT_DEATH(io_port_is_supervisable(port.get()), "'port->functions' should not be NULL");
}

TEST_F(AnIoPortDeathTest, ends_the_process_when_asked_for_the_direction_of_an_unknown_type) {
  const auto port = make({.type = unknown_type});
  EXPECT_DEATH(io_port_direction_input(port.get()), "should not be reached");
}
