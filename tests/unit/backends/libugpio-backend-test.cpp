#include "backends/libugpio-utils.h"
#include "support/backend-fixture.h"
#include "support/child.h"
#include "support/fake-pins.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct AGpioPort : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    fake_pins.reset();
  }
  void TearDown() override {
    BackendTest::TearDown();
    fake_pins.reset();
  }

  struct Attribute {
    const char* element;
    const char* key;
    const char* value;
  };

  static IoPortRef describe(PortType type, const std::vector<Attribute>& attributes) {
    auto port = make("gpio", type);
    for (const auto& attribute : attributes) {
      io_port_parse_backend_data(port.get(), attribute.element, attribute.key, attribute.value);
    }
    return port;
  }

  static IoPortRef set_up(PortType type, const std::vector<Attribute>& attributes) {
    auto port = describe(type, attributes);
    EXPECT_TRUE(io_port_setup(port.get()));
    return port;
  }

  static std::vector<std::string> take_calls() { return std::exchange(fake_pins.calls, {}); }
};

TEST_F(AGpioPort, requests_an_input_with_both_edges) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_THAT(take_calls(), ElementsAre("request_one 17 333", "full_open 17"));
}

TEST_F(AGpioPort, requests_by_name_where_there_is_one) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}, {"input", "alias", "door"}});
  EXPECT_THAT(take_calls(), ElementsAre("request_one_named door 333", "full_open door"));
}

struct OutputRow {
  const char* label;
  const char* inverted;
  bool activelow;
  std::vector<std::string> calls;
};

struct AGpioOutput : AGpioPort, testing::WithParamInterface<OutputRow> {};

TEST_P(AGpioOutput, starts_without_a_glitch) {
  auto port = describe(PORT_OUTPUT, {{"output", "pin", "5"}});
  if (GetParam().inverted != nullptr) {
    io_port_parse_backend_data(port.get(), "output", "inverted", GetParam().inverted);
  }
  port->activelow_output = GetParam().activelow;
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_EQ(take_calls(), GetParam().calls);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, AGpioOutput,
    testing::Values(
        OutputRow{"low", nullptr, false, {"request_one 5 64", "full_open 5", "set_value 5 0"}},
        OutputRow{"high", nullptr, true, {"request_one 5 66", "full_open 5", "set_value 5 1"}},
        OutputRow{"inverted low",
                  "true",
                  false,
                  {"request_one 5 66", "full_open 5", "set_activelow 5 1", "set_value 5 0"}},
        OutputRow{"inverted high",
                  "true",
                  true,
                  {"request_one 5 64", "full_open 5", "set_activelow 5 1", "set_value 5 1"}},
        OutputRow{"explicitly active high",
                  "yes",
                  true,
                  {"request_one 5 66", "full_open 5", "set_activelow 5 0", "set_value 5 1"}}),
    [](const auto& row) {
      std::string name = row.param.label;
      std::ranges::replace(name, ' ', '_');
      return name;
    });

const std::vector<AGpioPort::Attribute> three_pins{
    {"input", "pin", "1"}, {"output", "pin", "2"}, {"io_ctrl", "pin", "3"}};

TEST_F(AGpioPort, sets_a_configurable_input_up_quiet) {
  auto port = describe(PORT_IO_CTRL, three_pins);
  port->activelow_output = true;
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_THAT(take_calls(),
              ElementsAre("request_one 1 333", "full_open 1", "request_one 2 64", "full_open 2",
                          "set_value 2 0", "request_one 3 64", "full_open 3", "set_value 3 0"));
}

TEST_F(AGpioPort, sets_a_configurable_output_up_driving) {
  auto port = describe(PORT_IO_CTRL, three_pins);
  port->direction = Direction::Output;
  port->activelow_output = true;
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_THAT(take_calls(),
              ElementsAre("request_one 1 333", "full_open 1", "request_one 2 66", "full_open 2",
                          "set_value 2 1", "request_one 3 66", "full_open 3", "set_value 3 1"));
}

TEST_F(AGpioPort, turns_the_line_driver_round_in_order) {
  const auto port = set_up(PORT_IO_CTRL, three_pins);
  take_calls();
  io_port_set_direction(port.get(), Direction::Output);
  EXPECT_THAT(take_calls(), ElementsAre("set_value 3 1", "set_value 2 0"));
  io_port_set_direction(port.get(), Direction::Input);
  EXPECT_THAT(take_calls(), ElementsAre("set_value 2 0", "set_value 3 0"));
}

TEST_F(AGpioPort, goes_on_when_the_line_driver_does_not_turn) {
  const auto port = set_up(PORT_IO_CTRL, three_pins);
  fake_pins.faults = {"set_value"};
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Output));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Couldn't change direction on port!\n"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to set state on port!\n"));
  EXPECT_FALSE(io_port_input(port.get()));
}

TEST_F(AGpioPort, takes_a_pin_that_cannot_be_read_for_high) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  fake_pins.levels["17"] = -EIO;
  EXPECT_TRUE(io_port_get_state(port.get()));
}

TEST_F(AGpioPort, reports_every_edge_until_the_level_holds_still) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_TRUE(io_port_set_watch(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  run_pending();
  EXPECT_EQ(states(), 0U);

  // The condition stays, so the watch fires until it is taken away; each time one report.
  fake_pins.levels["17"] = 1;
  fake_pins.edge("17");
  EXPECT_TRUE(run_until([] { return states() == 1; }));
  EXPECT_THAT(take_states(), ElementsAre(true));
}

TEST_F(AGpioPort, reports_a_level_that_changes_while_it_is_reported) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  port_observer.port_changed = [](const PortChange& change) {
    fake_pins.calls.push_back(change.state ? "reported 1" : "reported 0");
    fake_pins.levels["17"] = 0;
  };
  fake_pins.levels["17"] = 1;
  take_calls();
  EXPECT_TRUE(libugpio_handle_trig(port.get(), nullptr));
  EXPECT_THAT(take_calls(), ElementsAre("reported 1", "reported 0"));
}

struct AnUnreadablePin : AGpioPort, testing::WithParamInterface<std::deque<int>> {};

TEST_P(AnUnreadablePin, rests_and_is_read_again_without_a_report_of_what_it_did_not_show) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_TRUE(io_port_set_watch(port.get()));
  fake_pins.readings["17"] = GetParam();
  fake_pins.edge("17");
  EXPECT_TRUE(run_until([] { return !claim_lines("Pin of port 1 cannot be read, ").empty(); }));
  // It rests: nothing is ready, however often one looks, and it counts as watched.
  run_pending();
  EXPECT_TRUE(io_port_set_watch(port.get()));
  take_states();
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  for (const bool state : take_states()) {
    EXPECT_FALSE(state);
  }
}

INSTANTIATE_TEST_SUITE_P(Readings, AnUnreadablePin,
                         testing::Values(std::deque{-EIO}, std::deque{0, -EIO},
                                         std::deque{0, 0, -EIO},
                                         std::deque{-EIO, -EIO, 0, -EAGAIN}),
                         [](const auto& row) { return std::to_string(row.index); });

TEST_F(AGpioPort, tells_a_pin_that_cannot_be_read_once) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_TRUE(io_port_set_watch(port.get()));
  fake_pins.readings["17"] = {-EIO, -EIO, -EIO, -EIO};
  fake_pins.edge("17");
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Pin of port 1 cannot be read, trying again every "
                                          "100 ms: Input/output error"));
}

TEST_F(AGpioPort, leaves_a_pin_alone_that_is_closed_while_it_rests) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_TRUE(io_port_set_watch(port.get()));
  fake_pins.levels["17"] = -EIO;
  fake_pins.edge("17");
  EXPECT_TRUE(run_until([] { return !claim_lines("Pin of port 1 cannot be read, ").empty(); }));
  io_port_close(port.get());
  EXPECT_TRUE(nothing_timed());
  EXPECT_EQ(states(), 0U);
}

TEST_F(AGpioPort, stops_watching_a_pin_that_is_gone) {
  const auto port = set_up(PORT_INPUT, {{"input", "pin", "17"}});
  EXPECT_TRUE(io_port_set_watch(port.get()));
  fake_pins.levels["17"] = -ENODEV;
  fake_pins.edge("17");
  EXPECT_TRUE(run_until([] {
    return static_cast<bool>(logged_part(G_LOG_LEVEL_WARNING, "cannot be read any more"));
  }));
  run_pending();
  EXPECT_EQ(states(), 0U);
}

TEST_F(AGpioPort, releases_its_pins_when_it_is_closed_and_takes_them_again) {
  const auto port = set_up(PORT_OUTPUT, {{"output", "pin", "5"}});
  take_calls();
  io_port_close(port.get());
  EXPECT_THAT(take_calls(), ElementsAre("close 5", "free 5"));
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_THAT(take_calls(), ElementsAre("request_one 5 64", "full_open 5", "set_value 5 0"));
}

struct FaultRow {
  const char* fault;
  const char* warning;
};

struct AGpioFault : AGpioPort, testing::WithParamInterface<FaultRow> {};

TEST_P(AGpioFault, fails_the_set_up_with_a_warning_and_a_critical) {
  const auto port = describe(PORT_INPUT, {{"input", "pin", "17"}, {"input", "inverted", "true"}});
  fake_pins.faults = {GetParam().fault};
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, GetParam().warning));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_CRITICAL, "libugpio_port_setup: assertion 'port->optional' failed"));
  EXPECT_EQ(std::ranges::count(fake_pins.calls, "free 17"),
            g_str_equal(GetParam().fault, "request_one") ? 0 : 1);
}

TEST_P(AGpioFault, fails_an_optional_port_without_the_critical) {
  const auto port = describe(PORT_INPUT, {{"input", "pin", "17"}, {"input", "inverted", "true"}});
  port->optional = true;
  fake_pins.faults = {GetParam().fault};
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, GetParam().warning));
}

INSTANTIATE_TEST_SUITE_P(Steps, AGpioFault,
                         testing::Values(FaultRow{"request_one",
                                                  "Failed to allocate pin 17/(null)"},
                                         FaultRow{"full_open", "Failed to open pin fd!"},
                                         FaultRow{"set_activelow", "Failed set active low!"}),
                         [](const auto& row) { return std::string(row.param.fault); });

TEST_F(AGpioPort, counts_as_set_up_when_only_the_first_level_fails) {
  const auto port = describe(PORT_OUTPUT, {{"output", "pin", "5"}});
  fake_pins.faults = {"set_value"};
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to set state on port!\n"));
}

TEST_F(AGpioPort, does_not_know_other_elements) {
  const auto port = describe(PORT_INPUT, {{"device", "pin", "1"}});
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Could not parse backend data!\n"));
  EXPECT_THAT(take_calls(), IsEmpty());
}

} // namespace
