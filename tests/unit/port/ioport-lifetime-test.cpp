#include "support/port-fixture.h"

#include "port/action-sequence.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using APortsLife = PortTest;

} // namespace

TEST_F(APortsLife, ends_with_its_last_reference) {
  IoPort* const port = make({}).release();
  EXPECT_EQ(io_port_ref(port).get(), port);
  EXPECT_EQ(fake_backend::live_records(), 1);
  io_port_unref(port);
  EXPECT_EQ(fake_backend::live_records(), 0);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: free"));
}

TEST_F(APortsLife, ignores_references_of_no_port) {
  EXPECT_EQ(io_port_ref(nullptr), nullptr);
  io_port_unref(nullptr);
}

TEST_F(APortsLife, ends_for_a_port_without_hardware_too) {
  io_port_new().reset();
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
}

TEST_F(APortsLife, withdraws_its_events_and_frees_its_ranges_at_the_end) {
  auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO});
  give_event(port.get(), "IOPort");
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 0, 10, nullptr));
  port.reset();
  EXPECT_THAT(fake_events::take_log(), ElementsAre("undeclare IOPort"));
}

TEST_F(APortsLife, gets_the_backend_of_a_kind) {
  const IoPortRef port = io_port_new();
  for (guint kind = 0; kind <= 10; kind++) {
    SCOPED_TRACE(kind);
    EXPECT_NE(io_port_set_backend(port.get(), static_cast<BackendKind>(kind)), nullptr);
    EXPECT_NE(port->functions, nullptr);
    EXPECT_EQ(port->backend, kind);
    EXPECT_EQ(fake_backend::live_records(), 1);
  }
  const auto* const before = port->functions;
  EXPECT_EQ(io_port_set_backend(port.get(), static_cast<BackendKind>(11)), nullptr);
  EXPECT_EQ(port->backend, 11U);
  EXPECT_EQ(port->functions, before);
}

TEST_F(APortsLife, keeps_the_backends_record_when_given_the_same_kind_again) {
  const auto port = make({.set_up = false});
  const auto* const record = fake_backend::record(port.get());
  io_port_set_backend(port.get(), BACKEND_GPIO);
  EXPECT_EQ(fake_backend::record(port.get()), record);
}

TEST_F(APortsLife, is_set_up_when_the_backend_agrees) {
  const auto port = make({.number = 2, .set_up = false});
  port->activelow_output = true;
  fake_backend::failing = {2};
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_FALSE(port->is_setup);
  fake_backend::failing = {};
  EXPECT_TRUE(io_port_setup(port.get()));
  EXPECT_TRUE(port->is_setup);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("2: setup 1", "2: setup 1"));
}

TEST_F(APortsLife, tells_the_backend_what_the_description_says) {
  const auto port = make({.set_up = false});
  io_port_parse_backend_data(port.get(), "device", "path", "/sys/x");
  io_port_parse_backend_data(port.get(), "device", "path", "/sys/y");
  EXPECT_THAT(fake_backend::record(port.get())->attributes,
              ElementsAre("device/path=/sys/x", "device/path=/sys/y"));
}

TEST_F(APortsLife, closes_through_free_when_the_backend_has_no_close) {
  const auto port = make({});
  io_port_close(port.get());
  EXPECT_FALSE(port->is_setup);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: free"));
  io_port_close(port.get());
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
}

TEST_F(APortsLife, closes_through_close_when_the_backend_has_one) {
  const auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO_INTERRUPT});
  io_port_close(port.get());
  EXPECT_FALSE(port->is_setup);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: close"));
  EXPECT_NE(fake_backend::record(port.get()), nullptr);
}

TEST_F(APortsLife, cannot_be_closed_without_a_backend) {
  const IoPortRef port = io_port_new();
  port->is_setup = true;
  io_port_close(port.get());
  EXPECT_TRUE(port->is_setup);
}

TEST_F(APortsLife, comes_back_after_a_close_as_it_was_described) {
  for (const BackendKind backend : {BACKEND_GPIO, BACKEND_IIO, BACKEND_IIO_INTERRUPT}) {
    SCOPED_TRACE(backend);
    const auto port = make({.type = PORT_INPUT, .backend = backend, .set_up = false});
    io_port_parse_backend_data(port.get(), "device", "path", "/sys/x");
    io_port_parse_backend_data(port.get(), "pins", "in", "7");
    ASSERT_TRUE(io_port_setup(port.get()));
    for (int round = 0; round < 3; round++) {
      io_port_close(port.get());
      EXPECT_FALSE(io_port_get_state(port.get()));
      ASSERT_TRUE(io_port_setup(port.get()));
      EXPECT_THAT(fake_backend::record(port.get())->attributes,
                  ElementsAre("device/path=/sys/x", "pins/in=7"));
    }
    EXPECT_EQ(fake_backend::live_records(), 1);
  }
}

TEST_F(APortsLife, forgets_what_was_said_of_a_backend_that_is_replaced) {
  const auto port = make({.backend = BACKEND_GPIO, .set_up = false});
  io_port_parse_backend_data(port.get(), "device", "path", "/sys/x");
  io_port_set_backend(port.get(), BACKEND_IIO);
  io_port_parse_backend_data(port.get(), "device", "path", "/sys/y");
  ASSERT_TRUE(io_port_setup(port.get()));
  io_port_close(port.get());
  ASSERT_TRUE(io_port_setup(port.get()));
  EXPECT_THAT(fake_backend::record(port.get())->attributes, ElementsAre("device/path=/sys/y"));
}

TEST_F(APortsLife, keeps_the_ranges_of_the_user_when_it_comes_back) {
  const auto port = make({.type = PORT_INPUT, .backend = BACKEND_IIO, .set_up = false});
  io_port_parse_backend_data(port.get(), "range", "range", "closed 0 100");
  ASSERT_EQ(port->ranges.size(), 1U);
  ASSERT_TRUE(io_port_setup(port.get()));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "short", 101, 200, nullptr));

  io_port_close(port.get());
  ASSERT_TRUE(io_port_setup(port.get()));
  ASSERT_EQ(port->ranges.size(), 2U);
  EXPECT_EQ(port->ranges.back().state, SUPERVISED_SHORT);
}

TEST_F(APortsLife, is_watched_only_as_an_enabled_input) {
  struct Row {
    const char* label;
    PortType type;
    bool direction_input;
    bool enabled;
    bool watched;
  };
  for (const auto& row : {Row{"input", PORT_INPUT, true, true, true},
                          Row{"disabled input", PORT_INPUT, true, false, false},
                          Row{"output", PORT_OUTPUT, true, true, false},
                          Row{"configurable as input", PORT_IO_CTRL, true, true, true},
                          Row{"configurable as output", PORT_IO_CTRL, false, true, false}}) {
    SCOPED_TRACE(row.label);
    const auto port = make({.type = row.type, .direction_input = row.direction_input});
    port->enabled = row.enabled;
    EXPECT_EQ(io_port_set_watch(port.get()), row.watched);
    EXPECT_THAT(fake_backend::take_calls(), row.watched ? Texts{"0: set_watch"} : Texts{});
  }
}

TEST_F(APortsLife, knows_whether_somebody_holds_its_locks) {
  const auto port = make({});
  EXPECT_FALSE(io_port_lock_taken(port.get()));
  const auto taken_elsewhere = [&] {
    bool taken = false;
    std::thread([&] { taken = io_port_lock_taken(port.get()); }).join();
    return taken;
  };
  {
    const PortGate::Write write(port->gate);
    EXPECT_TRUE(taken_elsewhere());
  }
  {
    const PortGate::Configuration change(port->gate);
    EXPECT_TRUE(taken_elsewhere());
  }
  EXPECT_FALSE(io_port_lock_taken(port.get()));
  port->gate.announce_run();
  EXPECT_TRUE(io_port_lock_taken(port.get()));
  port->gate.withdraw_run();
  EXPECT_FALSE(io_port_lock_taken(port.get()));
}

TEST_F(APortsLife, lets_a_configuration_change_nest) {
  const auto port = make({.type = PORT_IO_CTRL, .direction_input = false});
  const PortGate::Configuration outer(port->gate);
  EXPECT_TRUE(io_port_set_direction(port.get(), Direction::Input));
  EXPECT_TRUE(io_port_set_activelow(port.get(), true, PortSide::Input));
  const PortGate::Configuration inner(port->gate);
}

TEST_F(APortsLife, makes_a_configuration_change_wait_for_another_thread) {
  const auto port = make({.type = PORT_IO_CTRL});
  std::atomic<int> inside{0};
  std::atomic<bool> met{false};
  const auto change_again_and_again = [&] {
    for (int round = 0; round < 200; round++) {
      const PortGate::Configuration lock(port->gate);
      met = met || ++inside != 1;
      std::this_thread::yield();
      inside--;
    }
  };
  std::thread other(change_again_and_again);
  change_again_and_again();
  other.join();
  EXPECT_FALSE(met) << "two threads changed the port at once";
}
