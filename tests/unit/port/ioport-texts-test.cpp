#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using AnIoPort = PortTest;

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
