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
