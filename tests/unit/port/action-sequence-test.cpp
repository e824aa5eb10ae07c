#include "support/port-fixture.h"

#include "port/action-sequence.h"

#include <chrono>
#include <numeric>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr gint32 long_ms = 60'000;

struct Step {
  bool state;
  gint32 duration_ms;
};

struct AnActionSequence : PortTest {
  /// Steps that are not held, after which a sequence pauses.
  static constexpr std::size_t burst = 64;

  void TearDown() override {
    port_observer.burst_announced = nullptr;
    PortTest::TearDown();
  }

  static ActionSequence sequence(IoPort* port, const std::vector<Step>& steps,
                                 Trigger trigger = Trigger::Hardware) {
    ActionSequence made;
    for (const auto& step : steps) {
      made.push_back(
          {.port = port, .trigger = trigger, .state = step.state, .duration_ms = step.duration_ms});
    }
    return made;
  }

  static bool start(IoPort* port, const std::vector<Step>& steps,
                    Trigger trigger = Trigger::Hardware) {
    return io_port_run_action_sequence(port, sequence(port, steps, trigger))
           == SequenceStart::Started;
  }

  /// A port whose sequence has applied a first step that it holds for a minute.
  IoPortRef make_running(PortType type = PORT_OUTPUT) {
    auto port = make({.type = type, .number = 5, .direction_input = false});
    EXPECT_TRUE(start(port.get(), {{true, long_ms}, {false, long_ms}}));
    // The line flips first, then that is announced.
    EXPECT_TRUE(run_until([] { return !take_changes().empty(); }));
    fake_backend::take_calls();
    return port;
  }
};

using AnActionSequenceDeathTest = AnActionSequence;

} // namespace

TEST_F(AnActionSequence, drives_the_port_step_by_step_and_tells_of_its_end) {
  const auto port = make({.number = 5});
  ASSERT_TRUE(start(port.get(), {{true, 1}, {false, 1}, {false, 1}, {true, 0}}));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_THAT(fake_backend::take_calls(),
              ElementsAre("5: set_state 1", "5: set_state 0", "5: set_state 0", "5: set_state 1"));
  EXPECT_THAT(take_changes(), ElementsAre("5: state=1", "5: state=0", "5: state=1"));
  EXPECT_THAT(take_dones(), ElementsAre(5));
}

TEST_F(AnActionSequence, may_have_one_step_that_is_not_held) {
  const auto port = make({.number = 5});
  ASSERT_TRUE(start(port.get(), {{true, 0}}));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_TRUE(io_port_get_state(port.get()));
  EXPECT_THAT(take_dones(), ElementsAre(5));
}

TEST_F(AnActionSequence, holds_every_step_including_the_last) {
  const auto port = make({});
  const gint64 started = g_get_monotonic_time();
  ASSERT_TRUE(start(port.get(), {{true, 30}, {false, 30}}));
  ASSERT_TRUE(run_until([] { return dones() == 1; }));
  EXPECT_GE(g_get_monotonic_time() - started, 60'000);
}

TEST_F(AnActionSequence, forms_its_durations_in_32_bits) {
  struct Row {
    const char* label;
    gint32 duration_ms;
  };
  // A thousand times these wraps to a time that is over already.
  for (const auto& row : {Row{"the first to wrap", 2'147'484}, Row{"negative", -1},
                          Row{"the largest", G_MAXINT32}, Row{"the smallest", G_MININT32}}) {
    SCOPED_TRACE(row.label);
    const auto port = make({});
    ASSERT_TRUE(start(port.get(), {{true, row.duration_ms}}));
    EXPECT_TRUE(idle(port.get()));
  }
}

TEST_F(AnActionSequence, inverts_by_the_output_sense) {
  const auto port = make({});
  port->activelow_output = true;
  ASSERT_TRUE(start(port.get(), {{true, 0}, {false, 0}}));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: set_state 0", "0: set_state 1"));
}

TEST_F(AnActionSequence, announces_every_virtual_step) {
  const auto port = make({.type = PORT_INPUT, .number = 5});
  ASSERT_TRUE(start(port.get(), {{true, 0}, {true, 0}, {false, 0}}, Trigger::Virtual));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_THAT(take_changes(),
              ElementsAre("5: state=1 input virtual_trig", "5: state=1 input virtual_trig",
                          "5: state=0 input virtual_trig"));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  EXPECT_THAT(take_dones(), ElementsAre(5));
}

TEST_F(AnActionSequence, sends_the_events_of_its_port) {
  const auto port = make({});
  give_event(port.get(), "IOPort");
  ASSERT_TRUE(start(port.get(), {{true, 0}, {false, 0}}));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("send IOPort port=0 state=1", "send IOPort port=0 state=0"));
}

TEST_F(AnActionSequence, is_accepted_by_what_the_port_is) {
  struct Row {
    const char* label;
    PortDescription port;
    Trigger trigger;
    bool accepted;
  };
  const std::vector<Row> rows{
      {"output", {}, Trigger::Hardware, true},
      {"configurable as output",
       {.type = PORT_IO_CTRL, .direction_input = false},
       Trigger::Hardware,
       true},
      {"configurable as input", {.type = PORT_IO_CTRL}, Trigger::Hardware, false},
      {"input", {.type = PORT_INPUT}, Trigger::Hardware, false},
      {"virtual output", {.backend = BACKEND_VIRTUAL}, Trigger::Hardware, false},
      {"output not set up", {.set_up = false}, Trigger::Hardware, false},
      {"virtual states of an output", {}, Trigger::Virtual, true},
      {"virtual states of an input", {.type = PORT_INPUT}, Trigger::Virtual, true},
      {"virtual states of a virtual output", {.backend = BACKEND_VIRTUAL}, Trigger::Virtual, true},
      {"virtual states of a port not set up", {.set_up = false}, Trigger::Virtual, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make(row.port);
    EXPECT_EQ(start(port.get(), {{true, 0}}, row.trigger), row.accepted);
    if (!row.accepted) {
      EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Set action seq on incorrect port"));
      EXPECT_FALSE(io_port_lock_taken(port.get()));
      EXPECT_EQ(port->refcount, 1U);
    }
    ASSERT_TRUE(idle(port.get()));
    EXPECT_EQ(take_dones().size(), row.accepted ? 1U : 0U);
  }
}

TEST_F(AnActionSequence, marks_the_port_as_busy_from_the_start) {
  const auto port = make({});
  ASSERT_TRUE(start(port.get(), {{true, long_ms}}));
  EXPECT_TRUE(io_port_lock_taken(port.get()));
  EXPECT_TRUE(port->gate.busy());
  io_port_set_activelow(port.get(), true, PortSide::Output);
  EXPECT_FALSE(io_port_lock_taken(port.get()));
}

TEST_F(AnActionSequence, is_cancelled_by_every_configuration_change) {
  struct Row {
    const char* label;
    PortType type;
    void (*change)(IoPort* port);
  };
  const std::vector<Row> rows{
      {"output inversion", PORT_OUTPUT,
       [](IoPort* port) { io_port_set_activelow(port, true, PortSide::Output); }},
      {"direction", PORT_IO_CTRL,
       [](IoPort* port) { io_port_set_direction(port, Direction::Input); }},
      {"close", PORT_OUTPUT, io_port_close},
      {"configuration lock", PORT_OUTPUT,
       [](IoPort* port) { const PortGate::Configuration change(port->gate); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make_running(row.type);
    row.change(port.get());
    EXPECT_EQ(dones(), 1U);
    EXPECT_THAT(take_dones(), ElementsAre(5));
    EXPECT_FALSE(io_port_lock_taken(port.get()));
  }
}

TEST_F(AnActionSequence, is_stopped_without_a_change_and_frees_its_port) {
  const auto port = make_running();
  io_port_stop_action_sequence(port.get());
  EXPECT_THAT(take_changes(), IsEmpty());
  EXPECT_THAT(take_dones(), ElementsAre(5));
  EXPECT_TRUE(io_port_get_state(port.get()));
  EXPECT_FALSE(io_port_lock_taken(port.get()));
  io_port_stop_action_sequence(port.get());
  EXPECT_EQ(dones(), 0U);
}

TEST_F(AnActionSequence, is_cancelled_by_a_change_of_supervision) {
  const auto port = make({.type = PORT_IO_CTRL, .backend = BACKEND_IIO, .direction_input = false});
  ASSERT_TRUE(start(port.get(), {{true, long_ms}}));
  EXPECT_TRUE(io_port_set_supervised(port.get(), true));
  EXPECT_EQ(dones(), 1U);
}

TEST_F(AnActionSequence, is_cancelled_by_a_new_range_but_not_by_a_refused_one) {
  const auto port = make({.type = PORT_IO_CTRL, .backend = BACKEND_IIO, .direction_input = false});
  ASSERT_TRUE(start(port.get(), {{true, long_ms}}));
  EXPECT_FALSE(io_port_add_supervised_range(port.get(), "open", 10, 10, nullptr));
  EXPECT_EQ(dones(), 0U);
  EXPECT_TRUE(io_port_add_supervised_range(port.get(), "open", 0, 10, nullptr));
  EXPECT_EQ(dones(), 1U);
}

TEST_F(AnActionSequence, leaves_the_state_of_its_last_step_when_cancelled) {
  const auto port = make_running();
  io_port_set_activelow(port.get(), true, PortSide::Output);
  EXPECT_TRUE(io_port_get_state(port.get()));
  // The end comes first, then the line flips.
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("5: set_state 0"));
  EXPECT_THAT(take_changes(), ElementsAre("5: state=1 activelow"));
}

TEST_F(AnActionSequence, lets_plain_writes_in_between_its_steps) {
  // The pause that follows a burst of steps is between two of them, and the thread's own.
  static IoPort* written = nullptr;
  const auto port = make({.number = 5});
  written = port.get();
  port_observer.burst_announced = [] { EXPECT_TRUE(io_port_set_state(written, false)); };
  ASSERT_TRUE(start(port.get(), std::vector<Step>(burst + 1, {true, 0})));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_THAT(take_changes(), ElementsAre("5: state=1", "5: state=0", "5: state=1"));
}

TEST_F(AnActionSequence, pauses_after_every_burst_of_steps_that_are_not_held) {
  struct Row {
    const char* label;
    gint32 duration_ms;
    int pauses;
  };
  static std::atomic<int> pauses;
  port_observer.burst_announced = [] { pauses++; };
  for (const auto& row :
       {Row{"no length", 0, 2}, Row{"wrapped around", 2'147'484, 2}, Row{"a millisecond", 1, 0}}) {
    SCOPED_TRACE(row.label);
    pauses = 0;
    const auto port = make({});
    ASSERT_TRUE(start(port.get(), std::vector<Step>(2 * burst + 1, {true, row.duration_ms})));
    ASSERT_TRUE(idle(port.get()));
    EXPECT_EQ(pauses, row.pauses);
  }
}

TEST_F(AnActionSequence, ends_at_once_when_cancelled_while_it_applies_a_step) {
  static IoPort* cancelled = nullptr;
  static std::thread canceller;
  const auto port = make({.number = 5});
  cancelled = port.get();
  port_observer.port_changed = [](auto...) {
    canceller = std::thread([] { cancelled->gate.cancel_run(); });
  };
  ASSERT_TRUE(start(port.get(), {{true, long_ms}, {false, 0}}));
  ASSERT_TRUE(idle(port.get()));
  canceller.join();
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("5: set_state 1"));
}

TEST_F(AnActionSequence, applies_no_further_step_when_cancelled_after_one) {
  static IoPort* cancelled = nullptr;
  const auto port = make({.number = 5});
  cancelled = port.get();
  port_observer.burst_announced = [] { cancelled->gate.cancel_run(); };
  ASSERT_TRUE(start(port.get(), std::vector<Step>(burst + 1, {true, 0})));
  ASSERT_TRUE(idle(port.get()));
  EXPECT_EQ(fake_backend::take_calls().size(), burst);
}

TEST_F(AnActionSequence, can_follow_another_on_the_same_port) {
  const auto port = make({.number = 5});
  for (int round = 0; round < 20; round++) {
    ASSERT_TRUE(start(port.get(), {{round % 2 == 0, 0}}));
    ASSERT_TRUE(idle(port.get()));
  }
  EXPECT_EQ(take_dones().size(), 20U);
}

TEST_F(AnActionSequence, runs_beside_those_of_other_ports) {
  std::vector<IoPortRef> ports;
  for (gint number = 0; number < 8; number++) {
    ports.push_back(make({.number = number}));
    ASSERT_TRUE(start(ports.back().get(), {{true, 5}, {false, 5}}));
  }
  ASSERT_TRUE(run_until([] { return dones() == 8; }));
  auto ended = take_dones();
  std::ranges::sort(ended);
  std::vector<gint> expected(8);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(ended, expected);
}

TEST_F(AnActionSequence, keeps_its_port_alive) {
  IoPort* const port = make({.number = 5}).release();
  ASSERT_TRUE(start(port, {{true, long_ms}}));
  EXPECT_EQ(port->refcount, 2U);
  io_port_unref(port);
  EXPECT_EQ(fake_backend::live_records(), 1);
  action_sequences_stop();
  EXPECT_EQ(fake_backend::live_records(), 0);
  EXPECT_THAT(take_dones(), ElementsAre(5));
}

TEST_F(AnActionSequence, ends_before_its_port_is_destroyed) {
  IoPort* const port = add({.number = 5});
  ASSERT_TRUE(start(port, {{true, long_ms}}));
  io_port_list_free();
  EXPECT_EQ(fake_backend::live_records(), 0);
  EXPECT_THAT(take_dones(), ElementsAre(5));
}

TEST_F(AnActionSequence, is_stopped_wherever_it_runs) {
  std::vector<IoPortRef> ports;
  for (gint number = 0; number < 4; number++) {
    ports.push_back(make({.number = number}));
    ASSERT_TRUE(start(ports.back().get(), {{true, long_ms}}));
  }
  action_sequences_stop();
  EXPECT_EQ(dones(), 4U);
  for (const auto& port : ports) {
    EXPECT_EQ(port->refcount, 1U);
  }
  action_sequences_stop();
}

TEST_F(AnActionSequence, does_not_make_its_canceller_spin) {
  const auto port = make({});
  // Somebody holds the port for a while; who waits for it must not burn the processor.
  std::atomic<bool> held{false};
  std::thread holder([&] {
    const PortGate::Write write(port->gate);
    held = true;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    std::mutex nothing;
    std::condition_variable never;
    std::unique_lock waiting(nothing);
    while (never.wait_until(waiting, until) != std::cv_status::timeout) {
    }
  });
  ASSERT_TRUE(run_until([&] { return held.load(); }));
  timespec before{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
  { const PortGate::Configuration change(port->gate); }
  timespec after{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
  holder.join();
  const auto used_ms =
      (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1'000'000;
  EXPECT_LT(used_ms, 150);
}

TEST_F(AnActionSequenceDeathTest, ends_the_process_without_a_port_or_steps) {
  EXPECT_DEATH(std::ignore = io_port_run_action_sequence(nullptr, {{}}),
               "'ioport' should not be NULL");
  const auto port = make({});
  EXPECT_DEATH(std::ignore = io_port_run_action_sequence(port.get(), {}), "!steps.empty\\(\\)");
}
