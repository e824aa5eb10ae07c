#include "support/port-fixture.h"

using fake_events::Refuse;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct AnEvent : PortTest {
  /// A key value as the hardware description gives it.
  struct Entry {
    const char* key;
    const char* value;
    const char* type;
    bool property = false;
    OptionalText key_nice_name = std::nullopt;
    OptionalText value_nice_name = std::nullopt;
  };

  static void give_entry(IoEvent* event, const Entry& entry) {
    event->key_values.push_back({.key = entry.key,
                                 .value = entry.value,
                                 .key_nice_name = entry.key_nice_name,
                                 .value_nice_name = entry.value_nice_name,
                                 .type = entry.type,
                                 .property = entry.property});
  }

  static void declare(IoPort* port, IoEvent* event) {
    EXPECT_TRUE(io_event_declare_event(port, event));
  }

  static bool warned(const std::string& text) { return logged(G_LOG_LEVEL_WARNING, text); }
};

using AnEventDeathTest = AnEvent;

} // namespace

TEST_F(AnEvent, starts_undeclared_for_inputs_and_outputs) {
  const IoEvent event;
  EXPECT_FALSE(event.declaration);
  EXPECT_EQ(event.id, 0U);
  EXPECT_TRUE(event.output);
  EXPECT_TRUE(event.input);
  EXPECT_FALSE(event.supervised_input);
  EXPECT_FALSE(event.declare_only);
  EXPECT_FALSE(event.filter_reset);
  EXPECT_FALSE(event.last_value.active());
  EXPECT_TRUE(event.key_values.empty());
}

TEST_F(AnEvent, applies_to_what_the_port_currently_is) {
  struct Row {
    const char* label;
    PortType type;
    bool supervised;
    bool input;
    bool output;
    bool supervised_input;
    bool applies;
  };
  constexpr std::array rows{
      Row{"input", PORT_INPUT, false, true, false, false, true},
      Row{"input without the input flag", PORT_INPUT, false, false, true, true, false},
      Row{"output", PORT_OUTPUT, false, false, true, false, true},
      Row{"output without the output flag", PORT_OUTPUT, false, true, false, true, false},
      Row{"supervised input", PORT_INPUT, true, false, false, true, true},
      Row{"supervised input by the input flag", PORT_INPUT, true, true, false, false, true},
      Row{"supervised input by both", PORT_INPUT, true, true, false, true, true},
      Row{"supervised input with neither", PORT_INPUT, true, false, true, false, false},
      Row{"supervised flag of an output", PORT_OUTPUT, true, false, true, true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port =
        make({.type = row.type, .backend = BACKEND_IIO, .supervised = row.supervised});
    IoEvent* const event = give_event(port.get(), "IOPort", false);
    event->input = row.input;
    event->output = row.output;
    event->supervised_input = row.supervised_input;
    EXPECT_EQ(io_event_currently_applicable(port.get(), event), row.applies);
    declare(port.get(), event);
    EXPECT_EQ(event->id != 0, row.applies);
  }
}

TEST_F(AnEvent, uses_one_producer_for_everything) {
  const auto port = make({});
  give_event(port.get(), "IOPort");
  give_event(port.get(), "Known");
  EXPECT_THAT(fake_events::producers(), ElementsAre("wxd"));
}

TEST_F(AnEvent, is_declared_once_with_its_filter_reset) {
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "IOPort", false);
  declare(port.get(), event);
  const guint id = event->id;
  EXPECT_NE(id, 0U);
  EXPECT_TRUE(event->filter_reset);
  event->filter_reset = false;
  declare(port.get(), event);
  EXPECT_EQ(event->id, id);
  EXPECT_TRUE(event->filter_reset);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("declare IOPort"));
}

TEST_F(AnEvent, is_silent_while_it_is_not_declared) {
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "IOPort", false);
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_THAT(fake_events::take_log(), IsEmpty());
}

TEST_F(AnEvent, sends_the_plain_value_of_a_port) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "IOPort");
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("send IOPort port=3 state=1", "send IOPort port=3 state=0",
                          "send IOPort port=3 state=0"));
}

TEST_F(AnEvent, sends_the_measured_state_of_a_supervised_port) {
  struct Row {
    SupervisedState state;
    const char* sent;
  };
  const auto port =
      make({.type = PORT_INPUT, .number = 3, .backend = BACKEND_IIO, .supervised = true});
  IoEvent* const event = give_event(port.get(), "com.norv.Event.Wxd.SupervisedPort");
  for (const auto& row : {Row{SUPERVISED_OPEN, "tampered=0 state=open"},
                          Row{SUPERVISED_CLOSED, "tampered=0 state=closed"},
                          Row{SUPERVISED_SHORT, "tampered=1 state=short"},
                          Row{SUPERVISED_CUT, "tampered=1 state=cut"},
                          Row{SUPERVISED_UNDEFINED, "tampered=0 state=undefined"}}) {
    SCOPED_TRACE(row.sent);
    fake_backend::record(port.get())->readout.state = row.state;
    EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(true)));
    EXPECT_EQ(event->last_value.supervised(), row.state);
    EXPECT_THAT(
        fake_events::take_log(),
        ElementsAre(std::string("send com.norv.Event.Wxd.SupervisedPort port=3 ") + row.sent));
  }
}

TEST_F(AnEvent, is_not_sent_twice_for_a_supervised_input_that_did_not_change) {
  const auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO, .supervised = true});
  IoEvent* const event = give_event(port.get(), "com.norv.Event.Wxd.SupervisedPort");
  event->supervised_input = true;
  auto& measured = fake_backend::record(port.get())->readout.state;
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)))
      << "the first after the declaration";
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)))
      << "the given value does not count";
  measured = SUPERVISED_SHORT;
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(false)));
  io_event_reset_filter(event);
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(false)));
  declare(port.get(), event);
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
}

TEST_F(AnEvent, filters_by_the_given_value_when_it_is_no_supervised_port_event) {
  const auto port = make({.type = PORT_INPUT});
  IoEvent* const event = give_event(port.get(), "IOPort");
  event->supervised_input = true;
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
}

TEST_F(AnEvent, is_never_sent_when_it_is_only_to_be_declared) {
  const auto port = make({});
  fake_events::add_property_type("Stateful", "state");
  for (const char* type : {"IOPort", "Stateful"}) {
    SCOPED_TRACE(type);
    IoEvent* const event = give_event(port.get(), type, false);
    event->declare_only = true;
    declare(port.get(), event);
    EXPECT_NE(event->id, 0U);
    EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
    EXPECT_THAT(fake_events::take_log(), ElementsAre(std::string("declare ") + type));
  }
}

TEST_F(AnEvent, is_withdrawn_once) {
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "IOPort");
  const guint id = event->id;
  io_event_undeclare_event(event);
  EXPECT_EQ(event->id, 0U);
  EXPECT_FALSE(fake_events::is_declared(id));
  io_event_undeclare_event(event);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("undeclare IOPort"));
}

TEST_F(AnEvent, is_withdrawn_when_it_is_freed) {
  const auto port = make({});
  IoEvent* const event = make_event("IOPort").release();
  declare(port.get(), event);
  fake_events::take_log();
  io_event_free(event);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("undeclare IOPort"));
  io_event_free(nullptr);
  EXPECT_THAT(fake_events::take_log(), IsEmpty());
}

TEST_F(AnEvent, is_declared_again_with_the_new_name) {
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "IOPort");
  const guint before = event->id;
  port->output_name = "lamp";
  io_event_redeclare_port(port.get(), event);
  EXPECT_NE(event->id, before);
  EXPECT_EQ(fake_events::declaration(event->id).key("port").value_nice_name, "lamp");
  EXPECT_THAT(fake_events::take_log(), ElementsAre("undeclare IOPort", "declare IOPort"));

  io_event_undeclare_event(event);
  io_event_redeclare_port(port.get(), event);
  EXPECT_NE(event->id, 0U);
  io_event_redeclare_port(port.get(), nullptr);
}

TEST_F(AnEvent, tells_its_state_once_when_its_port_has_come_back) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "IOPort", false);
  event->supervised_input = true;
  io_event_mark_stale(event); // not declared, so nobody holds a state of it
  declare(port.get(), event);
  declare(port.get(), event);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("declare IOPort"));

  io_event_mark_stale(event);
  declare(port.get(), event);
  declare(port.get(), event);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("send IOPort port=3 state=0"));

  io_event_mark_stale(event);
  declare(port.get(), event);
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false))) << "not filtered";
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(false)));
}

TEST_F(AnEvent, shares_the_any_port_declaration_which_stays) {
  const auto first = make({.number = 1});
  auto second = make({.number = 2});
  IoEvent* const of_first = give_event(first.get(), "PortAny");
  IoEvent* const of_second = give_event(second.get(), "PortAny");
  EXPECT_NE(of_first->id, 0U);
  EXPECT_EQ(of_first->id, of_second->id);
  EXPECT_EQ(fake_events::times_declared("PortAny"), 1);

  io_event_undeclare_event(of_first);
  EXPECT_EQ(of_first->id, of_second->id);
  io_event_redeclare_port(first.get(), of_first);
  second.reset();
  EXPECT_TRUE(fake_events::is_declared(of_first->id));
  EXPECT_THAT(fake_events::take_log(), IsEmpty());

  EXPECT_TRUE(io_event_send_event(first.get(), of_first, ReportedState(true)));
  EXPECT_THAT(fake_events::take_log(), ElementsAre("send PortAny port=-1 state=1"));
}

TEST_F(AnEventDeathTest, complains_about_an_any_port_event_that_nobody_declared) {
  // In a process of its own, where no test has declared it.
  EXPECT_EXIT(
      {
        const auto port = make({});
        give_event(port.get(), "IOPort");
        IoEvent* const event = give_event(port.get(), "PortAny", false);
        event->id = 77;
        const bool sent = io_event_send_event(port.get(), event, ReportedState(true));
        for (const auto& message : claim_log()) {
          fprintf(stderr, "%s\n", message.text.c_str());
        }
        _exit(sent ? 1 : 0);
      },
      testing::ExitedWithCode(0), "PortAny event not declared");
}

TEST_F(AnEvent, says_nothing_when_a_built_in_type_cannot_be_declared) {
  const auto port = make({});
  fake_events::refuse(Refuse::Declare);
  for (const char* type : {"IOPort", "com.norv.Event.Wxd.SupervisedPort"}) {
    IoEvent* const event = give_event(port.get(), type);
    EXPECT_EQ(event->id, 0U);
  }
}

TEST_F(AnEvent, tells_why_the_library_did_not_take_it) {
  const auto port = make({});
  for (const char* type : {"IOPort", "PortAny", "com.norv.Event.Wxd.SupervisedPort", "Known"}) {
    SCOPED_TRACE(type);
    IoEvent* const event = give_event(port.get(), type);
    fake_events::refuse(Refuse::SendWithError);
    EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
    EXPECT_TRUE(warned("Error sending event: the fake refuses"));
    fake_events::refuse(Refuse::SendWithError, false);
    fake_events::refuse(Refuse::Send);
    EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
    fake_events::refuse(Refuse::Send, false);
    EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(true)));
  }
}

TEST_F(AnEvent, of_an_unknown_type_is_not_declared) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "Nonsense");
  EXPECT_EQ(event->id, 0U);
  EXPECT_TRUE(warned("Failed to create event declaration: Nonsense for port 3"));
}

TEST_F(AnEvent, of_a_known_type_carries_its_fixed_keys) {
  const auto port = make({.type = PORT_INPUT, .number = 3});
  port->input_name = "door";
  IoEvent* const event = give_event(port.get(), "Known", false);
  give_entry(event, {.key = "port",
                     .value = "7",
                     .type = "int",
                     .key_nice_name = "Port",
                     .value_nice_name = "PORT_NAME"});
  give_entry(event,
             {.key = "title", .value = "text", .type = "string", .key_nice_name = "PORT_NAME"});
  give_entry(event, {.key = "plain", .value = "0.5", .type = "double"});
  declare(port.get(), event);

  const auto& made = fake_events::declaration(event->id);
  ASSERT_EQ(made.keys.size(), 3U);
  EXPECT_EQ(made.key("port").type, NV_EVENT_INT);
  EXPECT_EQ(made.key("port").value, "7");
  EXPECT_EQ(made.key("port").key_nice_name, "Port");
  EXPECT_EQ(made.key("port").value_nice_name, "door");
  EXPECT_EQ(made.key("title").value, "text");
  EXPECT_EQ(made.key("title").key_nice_name, "door");
  EXPECT_EQ(made.key("title").value_nice_name, std::nullopt);
  EXPECT_EQ(made.key("plain").type, NV_EVENT_DOUBLE);
  EXPECT_EQ(made.key("plain").value, "0.5");
  EXPECT_EQ(made.property, std::nullopt);
  EXPECT_THAT(fake_events::take_log(), ElementsAre("declare Known"));
}

TEST_F(AnEvent, of_a_known_type_becomes_a_property_and_sends_its_initial_state) {
  const auto port = make({.number = 3});
  io_port_set_state(port.get(), true);
  IoEvent* const event = give_event(port.get(), "Known", false);
  give_entry(event, {.key = "first", .value = "PORT_STATUS", .type = "bool", .property = true});
  give_entry(event, {.key = "port", .value = "3", .type = "int"});
  give_entry(event, {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
  declare(port.get(), event);

  const auto& made = fake_events::declaration(event->id);
  EXPECT_EQ(made.property, "state") << "the last one wins";
  EXPECT_EQ(made.fill, nullptr);
  ASSERT_EQ(made.keys.size(), 1U) << "properties are not filled at declaration";
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("declare Known", "send Known port=3 first=1 state=1"));
}

TEST_F(AnEvent, of_a_type_that_is_a_property_keeps_it_and_sends_its_initial_state) {
  fake_events::add_property_type("Stateful", "own");
  const auto port = make({});
  IoEvent* const event = give_event(port.get(), "Stateful", false);
  give_entry(event, {.key = "state", .value = "PORT_ACTIVE", .type = "string", .property = true});
  declare(port.get(), event);
  EXPECT_EQ(fake_events::declaration(event->id).property, "own");
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("declare Stateful", "send Stateful state=inactive"));
}

TEST_F(AnEvent, of_a_known_type_sends_its_property_keys_with_the_present_state) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "Known", false);
  give_entry(event, {.key = "port", .value = "3", .type = "int"});
  give_entry(event, {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
  declare(port.get(), event);
  fake_events::take_log();
  fake_backend::record(port.get())->level = Level::High;
  EXPECT_TRUE(io_event_send_event(port.get(), event, ReportedState(false)));
  EXPECT_THAT(fake_events::take_log(), ElementsAre("send Known port=3 state=1"));
}

TEST_F(AnEvent, of_a_known_type_tells_what_could_not_be_declared) {
  struct Row {
    const char* label;
    Refuse refused;
    std::vector<const char*> messages;
    bool declared;
  };
  const std::vector<Row> rows{
      {"nice names",
       Refuse::NiceNames,
       {"Failed to set value nice name. Key: Door KNN: Door VNN: open",
        "Failed to populate event declaration!"},
       false},
      {"value",
       Refuse::Value,
       {"populating event key value failed - Key: port Val: 7 Type: int",
        "Failed to populate event declaration!"},
       false},
      {"property", Refuse::Property, {"Failed to set event property: state"}, false},
      {"declare", Refuse::Declare, {"Failed to declare event Known for port 3"}, false},
      {"prepare",
       Refuse::Prepare,
       {"Failed to prepare event: Known id: ",
        "Failed to send initial state of event Known for port 3"},
       true},
      {"send", Refuse::Send, {"Failed to send initial state of event Known for port 3"}, true},
      {"send with error",
       Refuse::SendWithError,
       {"Failed to send initial state of event Known for port 3"},
       true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make({.number = 3});
    IoEvent* const event = give_event(port.get(), "Known", false);
    give_entry(event, {.key = "port",
                       .value = "7",
                       .type = "int",
                       .key_nice_name = "Door",
                       .value_nice_name = "open"});
    give_entry(event, {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
    fake_events::refuse(row.refused);
    declare(port.get(), event);
    fake_events::refuse(row.refused, false);
    EXPECT_EQ(event->id != 0, row.declared);
    for (const char* message : row.messages) {
      EXPECT_TRUE(g_str_has_suffix(message, "id: ") ? logged_part(G_LOG_LEVEL_WARNING, message)
                                                    : logged(G_LOG_LEVEL_WARNING, message));
    }
  }
}

TEST_F(AnEvent, tells_of_a_nice_name_that_is_missing) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "Known", false);
  give_entry(event, {.key = "port", .value = "7", .type = "int", .value_nice_name = "PORT_NAME"});
  fake_events::refuse(Refuse::NiceNames);
  declare(port.get(), event);
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "Failed to set value nice name. Key: "));
  EXPECT_TRUE(warned("Failed to populate event declaration!"));
}

TEST_F(AnEvent, of_a_known_type_tells_what_could_not_be_sent) {
  const auto port = make({.number = 3});
  IoEvent* const event = give_event(port.get(), "Known", false);
  give_entry(event, {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
  declare(port.get(), event);

  fake_events::refuse(Refuse::Prepare);
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_TRUE(warned("Failed to prepare event: Known id: " + std::to_string(event->id)));
  fake_events::refuse(Refuse::Prepare, false);

  fake_events::refuse(Refuse::Value);
  EXPECT_FALSE(io_event_send_event(port.get(), event, ReportedState(true)));
  EXPECT_TRUE(warned("populating event key value failed - Key: state Val: PORT_STATUS Type: bool"));
  EXPECT_TRUE(warned("Failed to populate event values"));
}

TEST_F(AnEvent, survives_a_description_without_a_key) {
  const auto port = make({.number = 3});
  IoEvent* const no_key = give_event(port.get(), "Known", false);
  no_key->key_values.push_back({.value = "1", .type = "int"});
  declare(port.get(), no_key);
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "populating event key value failed"));
  EXPECT_TRUE(warned("Failed to populate event declaration!"));

  IoEvent* const no_property_key = give_event(port.get(), "Known", false);
  no_property_key->key_values.push_back({.value = "1", .type = "int", .property = true});
  declare(port.get(), no_property_key);
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "Failed to set event property: "));
}

TEST_F(AnEventDeathTest, ends_the_process_when_no_event_is_given_to_reset) {
  EXPECT_DEATH(io_event_reset_filter(nullptr), "'event' should not be NULL");
}
