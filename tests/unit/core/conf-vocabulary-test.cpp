#include "support/description-fixture.h"

#include "port/action-sequence.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using TheVocabulary = DescriptionTest;

constexpr const char* number_warning =
    "You have a port with higher number than FIRST_VIRTUAL_PORT this might lead to unexpected "
    "behaviour";

} // namespace

TEST_F(TheVocabulary, leaves_a_bare_port_with_its_defaults) {
  ASSERT_TRUE(read("<port/>"));
  const IoPort* const port = newest();
  EXPECT_FALSE(port->name);
  EXPECT_EQ(port->number, -1);
  EXPECT_EQ(port->type, PORT_INPUT);
  EXPECT_FALSE(port->optional);
  EXPECT_EQ(port->functions, nullptr);
  EXPECT_TRUE(port->events.empty());
}

TEST_F(TheVocabulary, names_a_port) {
  ASSERT_TRUE(read("<port name=\"relay &amp; lamp\"/>"));
  EXPECT_EQ(newest()->name, "relay & lamp");
}

TEST_F(TheVocabulary, makes_a_port_optional_by_exactly_true) {
  struct Row {
    const char* value;
    bool optional;
  };
  for (const auto& row : {Row{"true", true}, Row{"True", false}, Row{"1", false},
                          Row{"false", false}, Row{"", false}}) {
    SCOPED_TRACE(row.value);
    ASSERT_TRUE(read(std::string("<port optional=\"") + row.value + "\"/>"));
    EXPECT_EQ(newest()->optional, row.optional);
  }
  ASSERT_TRUE(read("<port name=\"a\" optional=\"true\"/>"));
  EXPECT_TRUE(newest()->optional);
}

TEST_F(TheVocabulary, numbers_a_port) {
  struct Row {
    const char* value;
    gint32 number;
  };
  for (const auto& row : {Row{"0", 0}, Row{"12", 12}, Row{"-3", -3}, Row{"7up", 7}, Row{"up", 0},
                          Row{"0x10", 0}, Row{" 4", 4}}) {
    SCOPED_TRACE(row.value);
    const IoPort* const port = read_port(std::string("<port_no nbr=\"") + row.value + "\"/>");
    EXPECT_EQ(port->number, row.number);
  }
}

TEST_F(TheVocabulary, warns_of_a_second_number_for_a_high_port) {
  EXPECT_EQ(read_port("<port_no nbr=\"600\"/>")->number, 600);
  EXPECT_EQ(read_port("<port_no nbr=\"5\"/><port_no nbr=\"7\"/>")->number, 7);
  EXPECT_EQ(read_port("<port_no nbr=\"6\"/><port_no nbr=\"1\"/>")->number, 1);
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, number_warning));
}

TEST_F(TheVocabulary, types_a_port_and_points_it) {
  struct Row {
    const char* label;
    const char* content;
    PortType type;
    bool direction_input;
    const char* complaint;
  };
  constexpr std::array rows{
      Row{"input", "<port_type type=\"input\"/>", PORT_INPUT, true, nullptr},
      Row{"output", "<port_type type=\"output\"/>", PORT_OUTPUT, false, nullptr},
      Row{"configurable", "<port_type type=\"io_ctrl\"/>", PORT_IO_CTRL, true, nullptr},
      Row{"configurable keeps its direction",
          "<param_defaults dir=\"output\"/><port_type type=\"io_ctrl\"/>", PORT_IO_CTRL, false,
          nullptr},
      Row{"input sets its direction", "<param_defaults dir=\"output\"/><port_type type=\"input\"/>",
          PORT_INPUT, true, nullptr},
      Row{"exact comparison", "<port_type type=\"Output\"/>", PORT_INPUT, true,
          "Unsupported port type Output\n"},
      Row{"unknown on an input sets its direction",
          "<param_defaults dir=\"output\"/><port_type type=\"x\"/>", PORT_INPUT, true,
          "Unsupported port type x\n"},
      Row{"unknown on an output sets its direction",
          "<port_type type=\"output\"/><param_defaults dir=\"input\"/><port_type type=\"x\"/>",
          PORT_OUTPUT, false, "Unsupported port type x\n"},
      Row{"unknown on a configurable changes nothing",
          "<port_type type=\"io_ctrl\"/><param_defaults dir=\"output\"/><port_type type=\"x\"/>",
          PORT_IO_CTRL, false, "Unsupported port type x\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const IoPort* const port = read_port(row.content);
    EXPECT_EQ(port->type, row.type);
    EXPECT_EQ(port->direction == Direction::Input, row.direction_input);
    if (row.complaint != nullptr) {
      EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, row.complaint));
    }
  }
}

TEST_F(TheVocabulary, sets_words_in_any_case_and_ignores_others) {
  struct Row {
    const char* attribute;
    guint (*get)(const IoPort* port);
    std::vector<std::pair<const char*, guint>> words;
  };
  const std::vector<Row> rows{
      {"dir",
       [](const IoPort* port) { return port->direction == Direction::Input ? 1U : 0U; },
       {{"output", 0}, {"sideways", 0}, {"INPUT", 1}, {"", 1}, {"Output", 0}}},
      {"port_mode",
       [](const IoPort* port) -> guint { return port->mode; },
       {{"monostable", 1}, {"tristable", 1}, {"Bistable", 2}, {"MONOSTABLE", 1}}},
      {"button_type",
       [](const IoPort* port) -> guint { return port->button_type; },
       {{"pulse", 1}, {"lever", 1}, {"ActInAct", 2}, {"NONE", 0}, {"Pulse", 1}}},
  };
  for (const auto& row : rows) {
    std::string content;
    for (const auto& [word, value] : row.words) {
      content += std::string("<param_defaults ") + row.attribute + "=\"" + word + "\"/>";
      SCOPED_TRACE(content);
      EXPECT_EQ(row.get(read_port(content)), value);
    }
  }
}

TEST_F(TheVocabulary, stores_a_pulse_time_that_has_digits) {
  struct Row {
    const char* value;
    guint32 stored;
  };
  for (const auto& row : {Row{"500", 500}, Row{"12abc", 12}, Row{"abc", 7}, Row{"", 7}, Row{"-", 7},
                          Row{"0", 0}, Row{"4294967297", 1}}) {
    SCOPED_TRACE(row.value);
    const IoPort* const port =
        read_port(std::string("<param_defaults pulse_time=\"7\"/><param_defaults pulse_time=\"")
                  + row.value + "\"/>");
    EXPECT_EQ(port->pulse_time, row.stored);
  }
}

TEST_F(TheVocabulary, replaces_the_usage) {
  EXPECT_EQ(read_port("<param_defaults usage=\"old\"/><param_defaults usage=\"new\"/>")->usage,
            "new");
}

TEST_F(TheVocabulary, keeps_the_first_default_names) {
  const IoPort* const port = read_port("<param_default_name input=\"Input 2\" output=\"Relay\"/>"
                                       "<param_default_name input=\"later\" output=\"later\"/>");
  EXPECT_EQ(port->input_name, "Input 2");
  EXPECT_EQ(port->output_name, "Relay");
}

TEST_F(TheVocabulary, takes_any_property) {
  IoPort* const port = read_port("<properties ioport=\"TRUE\" hidden=\"false\" own=\"true\"/>");
  EXPECT_TRUE(io_port_get_property(port, "ioport"));
  EXPECT_TRUE(io_port_get_property(port, "own"));
  bool hidden = true;
  EXPECT_TRUE(io_port_lookup_property(port, "hidden", &hidden));
  EXPECT_FALSE(hidden);
}

TEST_F(TheVocabulary, selects_a_backend_by_its_exact_name) {
  struct Row {
    const char* name;
    guint kind;
  };
  for (const auto& row : {Row{"virtual", 0}, Row{"gpio", 1}, Row{"spiadc", 2}, Row{"spi", 3},
                          Row{"iio", 4}, Row{"iio-interrupt", 5}, Row{"sysfs", 6}, Row{"iobox", 7},
                          Row{"null", 8}, Row{"check", 9}, Row{"zwave", 10}}) {
    SCOPED_TRACE(row.name);
    const IoPort* const port = read_port(std::string("<backend name=\"") + row.name + "\"/>");
    EXPECT_EQ(port->backend, row.kind);
    EXPECT_NE(port->functions, nullptr);
  }
  for (const char* name : {"GPIO", "gpio ", "steam", ""}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(read_port(std::string("<backend name=\"") + name + "\"/>")->functions, nullptr);
  }
}

TEST_F(TheVocabulary, hands_everything_inside_a_backend_to_it) {
  const IoPort* const port = read_port("<port_no nbr=\"1\"/>"
                                       "<backend name=\"gpio\" chip=\"0\">"
                                       "  <pin nbr=\"7\" name=\"x\"/>"
                                       "  <deeper><pin nbr=\"8\"/></deeper>"
                                       "</backend>"
                                       "<port_type type=\"output\"/>");
  EXPECT_THAT(fake_backend::record(port)->attributes,
              ElementsAre("backend/chip=0", "pin/nbr=7", "pin/name=x", "pin/nbr=8"));
  EXPECT_EQ(port->type, PORT_OUTPUT);
  EXPECT_EQ(port->backend_description.size(), 4U);
}

TEST_F(TheVocabulary, applies_its_own_elements_inside_a_backend_too) {
  const IoPort* const port =
      read_port("<backend name=\"gpio\"><port_no nbr=\"3\"/><event declaration=\"IOPort\"/>"
                "</backend>");
  EXPECT_EQ(port->number, 3);
  EXPECT_EQ(port->events.size(), 1U);
  EXPECT_THAT(fake_backend::record(port)->attributes,
              ElementsAre("port_no/nbr=3", "event/declaration=IOPort"));
}

TEST_F(TheVocabulary, leaves_a_bare_event_and_keyvalue_with_their_defaults) {
  const IoPort* const port = read_port("<event><keyvalue/></event>");
  ASSERT_EQ(port->events.size(), 1U);
  const auto& event = port->events.front();
  EXPECT_FALSE(event->declaration);
  EXPECT_TRUE(event->output && event->input);
  EXPECT_FALSE(event->supervised_input || event->declare_only);
  ASSERT_EQ(event->key_values.size(), 1U);
  const auto& entry = event->key_values.front();
  EXPECT_FALSE(entry.key || entry.value || entry.key_nice_name || entry.value_nice_name
               || entry.type);
  EXPECT_FALSE(entry.property);
}

TEST_F(TheVocabulary, sets_the_flags_of_an_event) {
  struct Row {
    const char* attribute;
    bool (*get)(const IoEvent* event);
    bool by_default;
  };
  for (const auto& row :
       {Row{"input", [](const IoEvent* event) { return event->input; }, true},
        Row{"output", [](const IoEvent* event) { return event->output; }, true},
        Row{"supervised_input", [](const IoEvent* event) { return event->supervised_input; },
            false},
        Row{"declare_only", [](const IoEvent* event) { return event->declare_only; }, false}}) {
    SCOPED_TRACE(row.attribute);
    const auto flag = [&](const char* value) {
      return row.get(read_port(std::string("<event ") + row.attribute + "=\"" + value + "\"/>")
                         ->events.front()
                         .get());
    };
    EXPECT_TRUE(flag("True"));
    EXPECT_FALSE(flag("FALSE"));
    EXPECT_EQ(flag("yes"), row.by_default);
    EXPECT_EQ(flag(""), row.by_default);
  }
}

TEST_F(TheVocabulary, keeps_events_and_their_keys_newest_first) {
  const IoPort* const port =
      read_port("<event declaration=\"first\"/>"
                "<event declaration=\"replaced\">"
                "  <keyvalue key=\"port\" value=\"1\" type=\"int\" property=\"False\""
                "            key-nice-name=\"Port\" value-nice-name=\"Relay\"/>"
                "  <keyvalue key=\"state\" value=\"PORT_STATUS\" type=\"bool\" property=\"TRUE\"/>"
                "</event>");
  ASSERT_EQ(port->events.size(), 2U);
  EXPECT_EQ(port->events.back()->declaration, "first");
  EXPECT_TRUE(port->events.back()->key_values.empty());
  const auto& event = port->events.front();
  EXPECT_EQ(event->declaration, "replaced");
  ASSERT_EQ(event->key_values.size(), 2U);
  const auto& state = event->key_values.front();
  EXPECT_EQ(state.key, "state");
  EXPECT_EQ(state.value, "PORT_STATUS");
  EXPECT_EQ(state.type, "bool");
  EXPECT_TRUE(state.property);
  const auto& number = event->key_values.back();
  EXPECT_EQ(number.key, "port");
  EXPECT_EQ(number.value, "1");
  EXPECT_EQ(number.type, "int");
  EXPECT_FALSE(number.property);
  EXPECT_EQ(number.key_nice_name, "Port");
  EXPECT_EQ(number.value_nice_name, "Relay");
}

TEST_F(TheVocabulary, makes_one_event_of_one_element) {
  const IoPort* const port =
      read_port("<event declaration=\"a\" declaration2=\"x\" input=\"false\"/>");
  ASSERT_EQ(port->events.size(), 1U);
  EXPECT_EQ(port->events.front()->declaration, "a");
  EXPECT_FALSE(port->events.front()->input);
}

TEST_F(TheVocabulary, sets_the_first_virtual_port) {
  ASSERT_TRUE(read("<port/><first_virtual_input nbr=\"8x\"/>"));
  EXPECT_EQ(virtual_input_get_first_port_no(), 8);
  EXPECT_TRUE(virtual_input_in_use());
}

TEST_F(TheVocabulary, hears_of_no_first_virtual_port_before_the_first_port) {
  virtual_input_set_first_port_no(5);
  ASSERT_TRUE(read("<first_virtual_input nbr=\"9\"/><port/>"));
  EXPECT_EQ(virtual_input_get_first_port_no(), 5);
}

TEST_F(TheVocabulary, ignores_what_it_does_not_know) {
  IoPort* const port =
      read_port("<steam valve=\"open\"/><port_no number=\"4\"/><port_type kind=\"output\"/>"
                "<PORT_NO nbr=\"4\"/><param_defaults colour=\"red\"/>");
  EXPECT_EQ(port->number, -1);
  EXPECT_EQ(port->type, PORT_INPUT);
  EXPECT_FALSE(io_port_get_property(port, "valve"));
}

TEST_F(TheVocabulary, reads_a_whole_port) {
  fake_bootblock::hwid = "B2-7";
  ASSERT_TRUE(read(R"(<port hwid="A1:B2" name="relay1">
                        <port_no nbr="1"/>
                        <port_type type="io_ctrl"/>
                        <param_defaults dir="output" port_mode="monostable" button_type="none"
                                        pulse_time="500" usage="door lock"/>
                        <param_default_name input="Input 2" output="Relay"/>
                        <properties ioport="true" readonly_Usage="false"/>
                        <backend name="gpio"><pin nbr="3"/></backend>
                        <event declaration="Port" input="true" output="true">
                          <keyvalue key="port" value="1" type="int" property="false"
                                    key-nice-name="Port" value-nice-name="Relay"/>
                          <keyvalue key="state" value="PORT_STATUS" type="bool" property="true"/>
                        </event>
                      </port>
                      <first_virtual_input nbr="8"/>)"));
  const IoPort* const port = newest();
  EXPECT_EQ(port->name, "relay1");
  EXPECT_EQ(port->number, 1);
  EXPECT_EQ(port->type, PORT_IO_CTRL);
  EXPECT_EQ(port->direction, Direction::Output);
  EXPECT_EQ(port->mode, PORT_MODE_MONOSTABLE);
  EXPECT_EQ(port->pulse_time, 500U);
  EXPECT_EQ(port->usage, "door lock");
  EXPECT_EQ(port->output_name, "Relay");
  EXPECT_EQ(port->events.front()->key_values.size(), 2U);
  EXPECT_EQ(virtual_input_get_first_port_no(), 8);
}
