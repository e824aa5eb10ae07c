#include "support/port-fixture.h"

#include "event/event-values.h"

namespace {

struct APlaceholder : PortTest {
  static EventKeyValue entry(const char* value, const char* type) {
    return {.key = "key", .value = value, .type = type};
  }
};

using APlaceholderDeathTest = APlaceholder;

constexpr std::array state_words{"PORT_STATUS", "PORT_ACTIVE", "PORT_INACTIVE"};

} // namespace

TEST_F(APlaceholder, knows_four_types) {
  EXPECT_EQ(event_value_type(entry("", "int")), NV_EVENT_INT);
  EXPECT_EQ(event_value_type(entry("", "bool")), NV_EVENT_BOOL);
  EXPECT_EQ(event_value_type(entry("", "double")), NV_EVENT_DOUBLE);
  EXPECT_EQ(event_value_type(entry("", "string")), NV_EVENT_STRING);
}

TEST_F(APlaceholder, stands_for_the_state_of_the_port) {
  struct Row {
    const char* value;
    const char* type;
    const char* inactive;
    const char* active;
  };
  constexpr std::array rows{
      Row{"PORT_STATUS", "int", "0", "1"},
      Row{"PORT_STATUS", "bool", "0", "1"},
      Row{"PORT_STATUS", "string", "false", "true"},
      Row{"PORT_ACTIVE", "int", "0", "1"},
      Row{"PORT_ACTIVE", "bool", "0", "1"},
      Row{"PORT_ACTIVE", "string", "inactive", "active"},
      Row{"PORT_INACTIVE", "int", "1", "0"},
      Row{"PORT_INACTIVE", "bool", "1", "0"},
      Row{"PORT_INACTIVE", "string", "active", "inactive"},
  };
  const auto port = make({});
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.value << " as " << row.type);
    fake_backend::record(port.get())->level = Level::Low;
    EXPECT_EQ(event_value_text(port.get(), entry(row.value, row.type)), row.inactive);
    fake_backend::record(port.get())->level = Level::High;
    EXPECT_EQ(event_value_text(port.get(), entry(row.value, row.type)), row.active);
  }
}

TEST_F(APlaceholder, stands_for_the_supervised_state_of_the_port) {
  struct Row {
    SupervisedState state;
    const char* as_int;
    const char* as_bool;
    const char* as_string;
  };
  const auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO, .supervised = true});
  for (const auto& row :
       {Row{SUPERVISED_OPEN, "0", "0", "open"}, Row{SUPERVISED_CLOSED, "1", "1", "closed"},
        Row{SUPERVISED_SHORT, "2", "0", "short"}, Row{SUPERVISED_CUT, "3", "0", "cut"},
        Row{SUPERVISED_UNDEFINED, "4", "0", "undefined"}}) {
    SCOPED_TRACE(row.as_string);
    fake_backend::record(port.get())->readout.state = row.state;
    const auto text = [&](const char* type) {
      return event_value_text(port.get(), entry("PORT_SUPERVISED_STATUS", type));
    };
    EXPECT_EQ(text("int"), row.as_int);
    EXPECT_EQ(text("bool"), row.as_bool);
    EXPECT_EQ(text("string"), row.as_string);
  }
}

TEST_F(APlaceholder, is_otherwise_the_text_itself) {
  struct Row {
    const char* value;
    const char* type;
    const char* text;
  };
  constexpr std::array rows{
      Row{"true", "bool", "1"},
      Row{"1", "bool", "1"},
      Row{"false", "bool", "0"},
      Row{"TRUE", "bool", "0"},
      Row{"yes", "bool", "0"},
      Row{"", "bool", "0"},
      Row{"42", "int", "42"},
      Row{"many", "int", "many"},
      Row{"word", "string", "word"},
      Row{"true", "string", "true"},
      Row{"", "string", ""},
      Row{"0.5", "double", "0.5"},
      Row{"PORT_STATUSES", "string", "PORT_STATUSES"},
      Row{"port_status", "string", "port_status"},
      Row{"PORT_NAME", "string", "PORT_NAME"},
  };
  const auto port = make({});
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.value << " as " << row.type);
    EXPECT_EQ(event_value_text(port.get(), entry(row.value, row.type)), row.text);
  }
  EXPECT_EQ(event_value_text(port.get(), {.key = "key", .type = "string"}), "");
}

TEST_F(APlaceholderDeathTest, cannot_be_a_double) {
  const auto port = make({});
  for (const char* word : state_words) {
    EXPECT_DEATH(event_value_text(port.get(), entry(word, "double")), "should not be reached");
  }
  EXPECT_DEATH(event_value_text(port.get(), entry("PORT_SUPERVISED_STATUS", "double")),
               "should not be reached");
}

TEST_F(APlaceholderDeathTest, needs_one_of_the_four_types) {
  for (const char* type : {"Int", "boolean", ""}) {
    EXPECT_DEATH(event_value_type(entry("1", type)), "should not be reached");
  }
}

TEST_F(APlaceholder, is_a_text_when_no_type_is_given) {
  const EventKeyValue untyped{.key = "key", .value = "1"};
  EXPECT_EQ(event_value_type(untyped), NV_EVENT_STRING);
}
