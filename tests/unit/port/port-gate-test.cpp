#include "port/port-gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

constexpr auto never = PortGate::Clock::time_point::max();

struct APortGate : testing::Test {
  void SetUp() override { gate.announce_run(); }
  PortGate gate;
};

TEST_F(APortGate, lets_a_write_in_between_two_steps) {
  std::atomic<bool> written{false};
  PortGate::Run run(gate);
  std::thread writer([&] {
    const PortGate::Write turn(gate);
    written = true;
  });
  // Each of these is the end of a step of no length.
  while (!written) {
    EXPECT_TRUE(run.let_others_in());
  }
  writer.join();
}

TEST_F(APortGate, ends_a_hold_at_once_for_a_change) {
  PortGate::Run run(gate);
  std::thread changer([&] { const PortGate::Configuration change(gate); });
  EXPECT_FALSE(run.hold_until(never));
  EXPECT_FALSE(run.let_others_in());
  run.end();
  changer.join();
}

TEST_F(APortGate, has_no_hold_for_a_run_that_is_cancelled_already) {
  gate.cancel_run();
  PortGate::Run run(gate);
  EXPECT_FALSE(run.hold_until(never));
  EXPECT_FALSE(run.hold_until(PortGate::Clock::time_point::min()));
}

TEST_F(APortGate, cancels_one_run_and_not_the_next) {
  gate.cancel_run();
  { const PortGate::Run cancelled(gate); }
  gate.announce_run();
  PortGate::Run next(gate);
  EXPECT_TRUE(next.let_others_in());
}

TEST_F(APortGate, cancels_nothing_that_does_not_run) {
  gate.withdraw_run();
  gate.cancel_run();
  gate.announce_run();
  PortGate::Run run(gate);
  EXPECT_TRUE(run.let_others_in());
}

TEST_F(APortGate, is_open_while_something_is_done_aside) {
  PortGate::Run run(gate);
  bool written = false;
  run.aside([&] {
    std::thread([&] {
      const PortGate::Write turn(gate);
      written = true;
    }).join();
  });
  EXPECT_TRUE(written);
}

TEST_F(APortGate, may_be_destroyed_as_soon_as_the_run_has_ended) {
  for (int round = 0; round < 200; round++) {
    auto short_lived = std::make_unique<PortGate>();
    short_lived->announce_run();
    std::thread sequence([&gate = *short_lived] {
      PortGate::Run run(gate);
      static_cast<void>(run.hold_until(never));
      run.end();
    });
    { const PortGate::Configuration change(*short_lived); }
    short_lived.reset();
    sequence.join();
  }
}

} // namespace
