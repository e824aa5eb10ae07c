#include "support/port-fixture.h"

#include "platform/log.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct SettingPortsUp : PortTest {
  IoPort* describe(PortDescription description) {
    description.set_up = false;
    return add(description);
  }

  static Texts names() {
    const IoPortListLock lock;
    Texts all;
    for (const IoPort* port : io_port_list_get()) {
      all.push_back(port->name.value_or("(none)"));
    }
    return all;
  }

  static bool in_service(gint number) { return io_port_list_get_port(number) != nullptr; }
  static bool waiting(gint number) { return io_port_list_get_dynamic_port(number) != nullptr; }
};

} // namespace

TEST_F(SettingPortsUp, takes_all_hardware_into_use) {
  describe({.number = 1, .name = "a"});
  describe({.number = 2, .name = "b"});
  io_port_list_setup();
  EXPECT_THAT(names(), ElementsAre("b", "a"));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("2: setup 0", "1: setup 0"));
  EXPECT_THAT(take_wanted(), ElementsAre(true));
}

TEST_F(SettingPortsUp, destroys_a_port_that_fails) {
  fake_backend::failing = {1};
  describe({.number = 1});
  describe({.number = 2});
  io_port_list_setup();
  EXPECT_TRUE(logged(log_level_user, "Setup failed for port 1, removing from list"));
  EXPECT_FALSE(in_service(1));
  EXPECT_FALSE(waiting(1));
  EXPECT_TRUE(in_service(2));
  EXPECT_EQ(fake_backend::live_records(), 1);
}

TEST_F(SettingPortsUp, lets_an_optional_port_that_fails_wait) {
  fake_backend::failing = {1, 3};
  describe({.number = 1, .optional = true});
  describe({.number = 2, .optional = true});
  describe({.number = 3, .optional = true});
  io_port_list_setup();
  EXPECT_TRUE(waiting(1));
  EXPECT_TRUE(in_service(2));
  EXPECT_TRUE(waiting(3));
  EXPECT_FALSE(in_service(1));
  EXPECT_EQ(io_port_list_length(), 1);
}

TEST_F(SettingPortsUp, keeps_the_newest_of_the_ports_that_share_a_number) {
  describe({.number = 1, .name = "old"});
  describe({.number = 1, .name = "new"});
  io_port_list_setup();
  EXPECT_THAT(names(), ElementsAre("new"));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("1: setup 0", "1: setup 0", "1: free"));
}

TEST_F(SettingPortsUp, lets_only_addressable_ports_take_a_number) {
  describe({.number = 1, .name = "addressable", .properties = {"virtual"}});
  describe({.number = 1, .name = "bare", .properties = {}});
  io_port_list_setup();
  EXPECT_THAT(names(), ElementsAre("bare", "addressable"));
}

TEST_F(SettingPortsUp, lets_a_number_pass_on_when_its_newest_port_fails) {
  describe({.number = 1, .name = "old"});
  IoPort* const newer = describe({.number = 1, .name = "new", .optional = true});
  newer->number = 9;
  fake_backend::failing = {9};
  io_port_list_setup();
  EXPECT_THAT(names(), ElementsAre("old"));
}

TEST_F(SettingPortsUp, brings_a_waiting_port_into_service_when_its_hardware_is_there) {
  fake_backend::failing = {1, 2};
  describe({.number = 1, .name = "a", .optional = true});
  describe({.number = 2, .name = "b", .optional = true});
  describe({.number = 3, .name = "c"});
  io_port_list_setup();
  take_wanted();
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 0);
  EXPECT_THAT(take_wanted(), IsEmpty());

  fake_backend::failing = {1};
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
  EXPECT_THAT(names(), ElementsAre("b", "c"));
  EXPECT_THAT(take_wanted(), ElementsAre(true));

  fake_backend::failing = {};
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
  EXPECT_THAT(names(), ElementsAre("a", "b", "c"));
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 0);
}

TEST_F(SettingPortsUp, brings_several_waiting_ports_in_at_once) {
  fake_backend::failing = {1, 2, 3};
  for (const gint number : {1, 2, 3}) {
    describe({.number = number, .optional = true});
  }
  io_port_list_setup();
  fake_backend::failing = {};
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 3);
  EXPECT_EQ(io_port_list_length(), 3);
  EXPECT_FALSE(waiting(1) || waiting(2) || waiting(3));
}

TEST_F(SettingPortsUp, leaves_a_port_waiting_while_another_has_its_number) {
  fake_backend::failing = {1};
  describe({.number = 1, .name = "waits", .optional = true});
  io_port_list_setup();
  fake_backend::failing = {};
  add({.number = 1, .name = "took over"});
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 0);
  io_port_list_free_by_name("took over");
  add({.number = 1, .name = "not addressable", .properties = {}});
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
}

TEST_F(SettingPortsUp, drops_and_refreshes_again_and_again) {
  IoPort* const port = add({.type = PORT_INPUT, .number = 1, .optional = true});
  io_port_parse_backend_data(port, "device", "path", "x");
  for (int round = 0; round < 5; round++) {
    io_port_close(port);
    io_port_list_move_to_dynamic(port);
    EXPECT_FALSE(in_service(1));
    EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
    EXPECT_TRUE(in_service(1));
    EXPECT_THAT(fake_backend::record(port)->attributes, ElementsAre("device/path=x"));
  }
  EXPECT_EQ(port->refcount, 1U);
}

TEST_F(SettingPortsUp, watches_every_enabled_input) {
  add({.type = PORT_INPUT, .number = 1});
  add({.type = PORT_OUTPUT, .number = 2});
  add({.type = PORT_INPUT, .number = 3})->enabled = false;
  add({.type = PORT_IO_CTRL, .number = 4});
  io_port_list_set_watch();
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("4: set_watch", "1: set_watch"));
}

TEST_F(SettingPortsUp, declares_the_events_of_enabled_ports_once) {
  IoPort* const enabled = add({.number = 1});
  IoPort* const disabled = add({.number = 2});
  disabled->enabled = false;
  give_event(enabled, "IOPort", false);
  give_event(enabled, "Known", false);
  give_event(disabled, "IOPort", false);
  io_port_list_declare_events();
  EXPECT_THAT(fake_events::take_log(), ElementsAre("declare Known", "declare IOPort"));
  io_port_list_declare_events();
  EXPECT_THAT(fake_events::take_log(), IsEmpty());
}

TEST_F(SettingPortsUp, reads_the_settings_of_every_port_in_list_order) {
  add({.number = 1});
  add({.number = 2});
  static std::vector<gint> read;
  read.clear();
  io_port_list_read_params([](IoPort* port) {
    read.push_back(port->number);
    return false;
  });
  EXPECT_THAT(read, ElementsAre(2, 1));
}

TEST_F(SettingPortsUp, gives_ports_default_names) {
  struct Row {
    const char* label;
    PortType type;
    const char* name;
    OptionalText input;
    OptionalText output;
  };
  const std::vector<Row> rows{
      {"input", PORT_INPUT, "a", "Port 1", std::nullopt},
      {"output", PORT_OUTPUT, "a", std::nullopt, "Port 1"},
      {"configurable", PORT_IO_CTRL, "a", "Port 1", "Port 1"},
      {"motion input", PORT_INPUT, "pir_detector", "PIR sensor", std::nullopt},
      {"motion output", PORT_OUTPUT, "pir_detector", std::nullopt, "Port 1"},
      {"motion configurable", PORT_IO_CTRL, "pir_detector", "PIR sensor", "Port 1"},
      {"unknown type", unknown_type, "a", std::nullopt, std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const IoPort* const port = add({.type = row.type, .name = row.name});
    io_port_list_update_names();
    EXPECT_EQ(port->input_name, row.input);
    EXPECT_EQ(port->output_name, row.output);
    io_port_list_free_by_name(row.name);
  }
}

TEST_F(SettingPortsUp, leaves_names_alone_that_exist_or_may_not_be_written) {
  IoPort* const named = add({.type = PORT_IO_CTRL, .number = 0});
  named->input_name = "door";
  IoPort* const locked = add({.number = 1, .properties = {"ioport", "readonly_Name"}});
  IoPort* const bare = add({.number = 2, .properties = {}});
  take_settings();
  io_port_list_update_names();
  EXPECT_EQ(named->input_name, "door");
  EXPECT_EQ(named->output_name, "Port 1");
  EXPECT_FALSE(locked->output_name);
  EXPECT_FALSE(bare->output_name);
  EXPECT_THAT(take_settings(), ElementsAre("0: output name=Port 1"));
}

TEST_F(SettingPortsUp, gives_no_name_to_numbers_at_or_above_the_count_of_ports) {
  const IoPort* const last = add({.number = 1});
  const IoPort* const beyond = add({.number = 2});
  io_port_list_update_names();
  EXPECT_EQ(last->output_name, "Port 2");
  EXPECT_FALSE(beyond->output_name);
}

TEST_F(SettingPortsUp, names_every_port_of_a_number) {
  const IoPort* const first = add({.number = 0});
  const IoPort* const second = add({.number = 0, .properties = {"virtual"}});
  io_port_list_update_names();
  EXPECT_EQ(first->output_name, "Port 1");
  EXPECT_EQ(second->output_name, "Port 1");
}

TEST_F(SettingPortsUp, lets_the_oldest_definition_of_a_number_come_into_service_first) {
  fake_backend::failing = {1};
  describe({.number = 1, .name = "older", .optional = true});
  describe({.number = 1, .name = "newer", .optional = true});
  io_port_list_setup();
  fake_backend::failing = {};
  EXPECT_EQ(io_port_list_setup_dynamic_ports(), 1);
  EXPECT_THAT(names(), ElementsAre("older"));
}

TEST_F(SettingPortsUp, lets_an_optional_port_wait_even_when_its_number_is_taken) {
  describe({.number = 1, .backend = BACKEND_GPIO, .name = "failing", .optional = true});
  describe({.number = 1, .name = "fine", .optional = true});
  // The set-up walks from the newest to the oldest: only the second look at the number fails.
  fake_backend::failing_after = {{1, 1}};
  io_port_list_setup();
  EXPECT_THAT(names(), ElementsAre("fine"));
  EXPECT_TRUE(waiting(1));
}
