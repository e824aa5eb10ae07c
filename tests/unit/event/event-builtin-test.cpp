#include "support/port-fixture.h"

#include "event/event-builtin.h"

using fake_events::Key;
using testing::ElementsAre;

namespace {

struct ABuiltInDeclaration : PortTest {
  static const fake_events::Declaration& declared(const IoEvent* event) {
    return fake_events::declaration(event->id);
  }
};

/// What one key of a declaration must be.
struct ExpectedKey {
  const char* name;
  NvEventType type;
  OptionalText value;
  const char* name_space;
  std::vector<std::string> tags;
  OptionalText key_nice_name;
  OptionalText value_nice_name;
};

void expect_keys(const fake_events::Declaration& declaration,
                 const std::vector<ExpectedKey>& expected) {
  ASSERT_EQ(declaration.keys.size(), expected.size());
  for (gsize i = 0; i < expected.size(); i++) {
    const Key& key = declaration.keys[i];
    const ExpectedKey& row = expected[i];
    SCOPED_TRACE(row.name);
    EXPECT_EQ(key.name, row.name);
    EXPECT_EQ(key.type, row.type);
    EXPECT_EQ(key.value, row.value);
    EXPECT_EQ(key.name_space, row.name_space);
    EXPECT_EQ(key.tags, row.tags);
    EXPECT_EQ(key.key_nice_name, row.key_nice_name);
    EXPECT_EQ(key.value_nice_name, row.value_nice_name);
  }
}

const ExpectedKey topic_device{"topic0", NV_EVENT_STRING, "Device",    "tns1",
                               {},       std::nullopt,    std::nullopt};
const ExpectedKey topic_io{"topic1", NV_EVENT_STRING, "IO",         "tnsnorv",
                           {},       std::nullopt,    "Input ports"};
const ExpectedKey topic_port{"topic2",     NV_EVENT_STRING,     "Port", "tnsnorv", {},
                             std::nullopt, "Digital input port"};
const ExpectedKey topic_supervised{"topic2", NV_EVENT_STRING, "SupervisedPort",       "tnsnorv",
                                   {},       std::nullopt,    "Supervised input port"};
const ExpectedKey state_bool{"state",        NV_EVENT_BOOL, std::nullopt, "",
                             {"onvif-data"}, "Active",      std::nullopt};

} // namespace

TEST_F(ABuiltInDeclaration, exists_for_three_names) {
  for (const char* name : {"IOPort", "PortAny", "com.norv.Event.Wxd.SupervisedPort"}) {
    EXPECT_TRUE(event_builtin_known(name)) << name;
  }
  for (const char* name : {"ioport", "Port", "SupervisedPort", ""}) {
    EXPECT_FALSE(event_builtin_known(name)) << name;
  }
  EXPECT_FALSE(event_builtin_known(nullptr));
}

TEST_F(ABuiltInDeclaration, has_type_codes_that_the_library_knows) {
  EXPECT_EQ(NV_EVENT_INT, 1U);
  EXPECT_EQ(NV_EVENT_BOOL, 2U);
  EXPECT_EQ(NV_EVENT_DOUBLE, 3U);
  EXPECT_EQ(NV_EVENT_STRING, 4U);
}

TEST_F(ABuiltInDeclaration, of_a_port) {
  const auto port = make({.number = 4});
  port->output_name = "lamp";
  const IoEvent* const event = give_event(port.get(), "IOPort");
  expect_keys(declared(event), {{"port", NV_EVENT_INT, "4", "", {"onvif-source"}, "Port", "lamp"},
                                state_bool,
                                topic_device,
                                topic_io,
                                topic_port});
  EXPECT_EQ(declared(event).property, "state");
  EXPECT_EQ(declared(event).user_data, GINT_TO_POINTER(4));
}

TEST_F(ABuiltInDeclaration, of_a_port_without_a_name_has_no_nice_value) {
  const auto port = make({.number = 4});
  const IoEvent* const event = give_event(port.get(), "IOPort");
  EXPECT_EQ(declared(event).key("port").value_nice_name, std::nullopt);
  EXPECT_EQ(declared(event).key("port").key_nice_name, "Port");
}

TEST_F(ABuiltInDeclaration, of_any_port) {
  const auto port = make({.number = 4});
  const IoEvent* const event = give_event(port.get(), "PortAny");
  expect_keys(declared(event), {{"port", NV_EVENT_INT, "-1", "", {"onvif-source"}, "Port", "Any"},
                                state_bool,
                                topic_device,
                                topic_io,
                                topic_port});
  EXPECT_EQ(declared(event).property, "state");
  EXPECT_EQ(declared(event).user_data, nullptr);
}

TEST_F(ABuiltInDeclaration, of_a_supervised_port) {
  const auto port =
      make({.type = PORT_INPUT, .number = 4, .backend = BACKEND_IIO, .supervised = true});
  port->input_name = "loop";
  const IoEvent* const event = give_event(port.get(), "com.norv.Event.Wxd.SupervisedPort");
  expect_keys(
      declared(event),
      {{"port", NV_EVENT_INT, "4", "", {"onvif-source"}, "Port", "loop"},
       {"tampered", NV_EVENT_BOOL, std::nullopt, "", {"onvif-data"}, "Tampered", std::nullopt},
       {"state", NV_EVENT_STRING, std::nullopt, "", {"onvif-data"}, "State", std::nullopt},
       topic_device,
       topic_io,
       topic_supervised});
  EXPECT_EQ(declared(event).property, "tampered");
  EXPECT_EQ(declared(event).user_data, GINT_TO_POINTER(4));
}

TEST_F(ABuiltInDeclaration, tells_the_present_state_of_its_port) {
  IoPort* const port = add({.number = 4});
  const guint id = give_event(port, "IOPort")->id;
  EXPECT_EQ(fake_events::ask(id)["state"], "0");
  io_port_set_state(port, true);
  EXPECT_EQ(fake_events::ask(id)["state"], "1");
}

TEST_F(ABuiltInDeclaration, tells_whether_any_port_is_active) {
  IoPort* const first = add({.number = 1});
  IoPort* const second = add({.number = 2});
  give_event(first, "PortAny");
  const guint id = give_event(second, "PortAny")->id;
  EXPECT_EQ(fake_events::ask(id)["state"], "0");
  io_port_set_state(first, true);
  EXPECT_EQ(fake_events::ask(id)["state"], "1");
}

TEST_F(ABuiltInDeclaration, tells_the_present_state_of_a_supervised_port) {
  IoPort* const port =
      add({.type = PORT_INPUT, .number = 4, .backend = BACKEND_IIO, .supervised = true});
  const guint id = give_event(port, "com.norv.Event.Wxd.SupervisedPort")->id;
  struct Row {
    SupervisedState state;
    const char* tampered;
    const char* name;
  };
  for (const auto& row : {Row{SUPERVISED_OPEN, "0", "open"}, Row{SUPERVISED_CLOSED, "0", "closed"},
                          Row{SUPERVISED_SHORT, "1", "short"}, Row{SUPERVISED_CUT, "1", "cut"},
                          Row{SUPERVISED_UNDEFINED, "0", "undefined"}}) {
    SCOPED_TRACE(row.name);
    fake_backend::record(port)->readout.state = row.state;
    auto values = fake_events::ask(id);
    EXPECT_EQ(values["tampered"], row.tampered);
    EXPECT_EQ(values["state"], row.name);
    EXPECT_EQ(event_tampered(row.state), row.tampered == std::string("1"));
  }
}

TEST_F(ABuiltInDeclaration, tells_something_when_its_port_is_gone) {
  const auto port = make({.number = 4});
  EXPECT_EQ(fake_events::ask(give_event(port.get(), "IOPort")->id)["state"], "0");
  const guint id = give_event(port.get(), "com.norv.Event.Wxd.SupervisedPort")->id;
  EXPECT_EQ(fake_events::ask(id)["state"], "undefined");
  EXPECT_EQ(fake_events::ask(id)["tampered"], "0");
}
