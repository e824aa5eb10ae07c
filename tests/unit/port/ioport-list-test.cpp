#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct ThePortList : PortTest {
  /// Numbers of the ports in service, in list order.
  static std::vector<gint> numbers() {
    const IoPortListLock lock;
    std::vector<gint> all;
    for (const IoPort* port : io_port_list_get()) {
      all.push_back(port->number);
    }
    return all;
  }

  static gint found(const IoPortRef& port) { return port != nullptr ? port->number : -99; }
};

} // namespace

TEST_F(ThePortList, runs_newest_first) {
  EXPECT_EQ(io_port_list_length(), 0);
  for (const gint number : {1, 2, 3}) {
    add({.number = number});
  }
  EXPECT_THAT(numbers(), ElementsAre(3, 2, 1));
  EXPECT_EQ(io_port_list_length(), 3);
  EXPECT_EQ(found(io_port_list_nth_data(0)), 3);
  EXPECT_EQ(found(io_port_list_nth_data(2)), 1);
  EXPECT_EQ(io_port_list_nth_data(3), nullptr);
}

TEST_F(ThePortList, holds_one_reference_and_lends_new_ones) {
  const auto port = make({.number = 1, .name = "a"});
  io_port_list_add(port.get());
  EXPECT_EQ(port->refcount, 2U);
  const std::array lent{io_port_list_nth_data(0), io_port_list_get_port(1),
                        io_port_list_get_by_name("a")};
  EXPECT_EQ(port->refcount, 5U);
  const auto many = io_port_list_get_port_list(1);
  EXPECT_EQ(port->refcount, 6U);
  io_port_list_free_by_name("a");
  EXPECT_EQ(port->refcount, 5U);
}

TEST_F(ThePortList, finds_the_newest_port_of_a_name) {
  IoPort* const older = add({.number = 1, .name = "a"});
  IoPort* const newer = add({.number = 2, .name = "a"});
  IoPort* const unnamed = add({.number = 3});
  EXPECT_EQ(io_port_list_get_by_name("a").get(), newer);
  EXPECT_EQ(io_port_list_get_by_name(nullptr).get(), unnamed);
  EXPECT_EQ(io_port_list_get_by_name("b"), nullptr);
  io_port_list_free_by_name("a");
  EXPECT_EQ(io_port_list_get_by_name("a").get(), older);
}

TEST_F(ThePortList, finds_the_oldest_addressable_port_of_a_number) {
  add({.number = 4, .name = "bare, oldest", .properties = {}});
  IoPort* const oldest = add({.number = 4, .name = "oldest", .properties = {"virtual"}});
  IoPort* const newest = add({.number = 4, .name = "newest", .properties = {"ioport"}});
  add({.number = 4, .name = "bare, newest", .properties = {"hidden"}});
  EXPECT_EQ(io_port_list_get_port(4).get(), oldest);
  EXPECT_EQ(io_port_list_get_port(5), nullptr);

  const auto all = io_port_list_get_port_list(4);
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].get(), newest);
  EXPECT_EQ(all[1].get(), oldest);
  EXPECT_THAT(io_port_list_get_port_list(5), IsEmpty());
}

TEST_F(ThePortList, takes_a_false_property_as_none) {
  IoPort* const port = add({.number = 4, .properties = {}});
  io_port_add_property(port, "ioport", "false");
  EXPECT_EQ(io_port_list_get_port(4), nullptr);
}

TEST_F(ThePortList, counts_io_ports_by_what_they_currently_are) {
  add({.type = PORT_INPUT});
  add({.type = PORT_INPUT, .properties = {"virtual"}});
  add({.type = PORT_OUTPUT});
  add({.type = PORT_OUTPUT, .properties = {}});
  IoPort* const switched = add({.type = PORT_IO_CTRL, .direction_input = true});
  EXPECT_EQ(io_port_list_nbr_inputs(), 2);
  EXPECT_EQ(io_port_list_nbr_outputs(), 1);
  io_port_set_direction(switched, Direction::Output);
  EXPECT_EQ(io_port_list_nbr_inputs(), 1);
  EXPECT_EQ(io_port_list_nbr_outputs(), 2);
}

TEST_F(ThePortList, lists_the_numbers_of_supervisable_ports) {
  add({.type = PORT_INPUT, .number = 1, .backend = BACKEND_IIO});
  add({.type = PORT_INPUT, .number = 2});
  add({.type = PORT_IO_CTRL, .number = 3, .backend = BACKEND_IIO, .properties = {}});
  add({.type = PORT_OUTPUT, .number = 4, .backend = BACKEND_IIO});
  EXPECT_THAT(io_port_list_get_supervised_port_numbers(), ElementsAre(3, 1));
}

TEST_F(ThePortList, is_active_for_the_any_port_event_when_a_taking_part_port_is) {
  IoPort* const outsider = add({.number = 1});
  IoPort* const member = add({.number = 2});
  give_event(member, "PortAny");
  io_port_set_state(outsider, true);
  EXPECT_FALSE(io_port_list_get_port_any_value());
  io_port_set_state(member, true);
  EXPECT_TRUE(io_port_list_get_port_any_value());
  io_port_set_enabled(member, false);
  EXPECT_FALSE(io_port_list_get_port_any_value());
}

TEST_F(ThePortList, takes_the_logical_state_for_the_any_port_event) {
  IoPort* const inverted = add({.type = PORT_INPUT, .number = 1});
  give_event(inverted, "PortAny");
  io_port_set_activelow(inverted, true, PortSide::Input);
  EXPECT_TRUE(io_port_list_get_port_any_value());
  fake_backend::record(inverted)->level = Level::High;
  EXPECT_FALSE(io_port_list_get_port_any_value());
}

TEST_F(ThePortList, counts_hidden_ports) {
  add({.type = PORT_INPUT, .number = 1, .properties = {"ioport", "hidden"}});
  add({.type = PORT_OUTPUT, .number = 2, .properties = {"ioport", "hidden"}});
  EXPECT_EQ(io_port_list_nbr_inputs(), 1);
  EXPECT_EQ(io_port_list_nbr_outputs(), 1);
}

TEST_F(ThePortList, sends_only_optional_ports_to_wait) {
  IoPort* const fixed = add({.number = 1});
  IoPort* const optional = add({.number = 2, .optional = true});
  io_port_list_move_to_dynamic(fixed);
  EXPECT_THAT(numbers(), ElementsAre(2, 1));
  EXPECT_THAT(take_wanted(), IsEmpty());

  io_port_list_move_to_dynamic(optional);
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_EQ(found(io_port_list_get_dynamic_port(2)), 2);
  EXPECT_EQ(io_port_list_get_port(2), nullptr);
  EXPECT_EQ(optional->refcount, 1U);
  EXPECT_THAT(take_wanted(), ElementsAre(true));

  io_port_list_move_to_dynamic(optional);
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
  EXPECT_THAT(numbers(), ElementsAre(2, 1));
}

TEST_F(ThePortList, looks_waiting_ports_up_like_those_in_service) {
  const auto wait = [&](const PortDescription& description) {
    IoPort* const port = add(description);
    io_port_list_move_to_dynamic(port);
    return port;
  };
  IoPort* const oldest = wait({.number = 2, .optional = true});
  wait({.number = 2, .optional = true});
  wait({.number = 3, .properties = {}, .optional = true});
  EXPECT_EQ(io_port_list_get_dynamic_port(2).get(), oldest);
  EXPECT_EQ(io_port_list_get_dynamic_port(3), nullptr);
}

TEST_F(ThePortList, tells_whether_outputs_are_wanted) {
  struct Row {
    const char* label;
    PortType type;
    std::vector<const char*> properties;
    bool wanted;
  };
  const std::vector<Row> rows{
      {"input", PORT_INPUT, {"ioport"}, false},
      {"output", PORT_OUTPUT, {"ioport"}, true},
      {"configurable", PORT_IO_CTRL, {"ioport"}, true},
      {"virtual output", PORT_OUTPUT, {"virtual"}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .name = "a", .properties = row.properties});
    io_port_list_add(port.get());
    EXPECT_THAT(take_wanted(), ElementsAre(row.wanted));
    io_port_list_update_action_registration();
    EXPECT_THAT(take_wanted(), ElementsAre(row.wanted));
    io_port_list_free_by_name("a");
    EXPECT_THAT(take_wanted(), ElementsAre(false));
  }
  io_port_list_free_by_name("nobody");
  EXPECT_THAT(take_wanted(), ElementsAre(false));
}

TEST_F(ThePortList, works_without_an_observer) {
  port_observer.outputs_wanted = nullptr;
  port_observer.port_changed = nullptr;
  IoPort* const port = add({});
  EXPECT_TRUE(io_port_set_state(port, true));
  EXPECT_THAT(take_wanted(), IsEmpty());
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(ThePortList, drops_ports_without_a_backend_and_says_which) {
  add({.number = 1});
  const IoPortRef bare = io_port_new();
  bare->number = 2;
  io_port_list_add(bare.get());
  static std::vector<gint> reported;
  reported.clear();
  io_port_list_drop_without_backend([](const IoPort* port) { reported.push_back(port->number); });
  EXPECT_THAT(reported, ElementsAre(2));
  EXPECT_THAT(numbers(), ElementsAre(1));
  EXPECT_EQ(bare->refcount, 1U);
}

TEST_F(ThePortList, destroys_waiting_ports_too_at_the_end) {
  add({.number = 1});
  io_port_list_move_to_dynamic(add({.number = 2, .optional = true}));
  EXPECT_EQ(fake_backend::live_records(), 2);
  io_port_list_free();
  EXPECT_EQ(fake_backend::live_records(), 0);
  EXPECT_EQ(io_port_list_length(), 0);
  EXPECT_EQ(io_port_list_get_dynamic_port(2), nullptr);
}
