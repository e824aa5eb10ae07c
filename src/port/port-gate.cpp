#include "port/port-gate.h"

bool PortGate::busy() {
  const std::unique_lock guard(mutex_, std::try_to_lock);
  return !guard.owns_lock() || running_;
}

void PortGate::announce_run() {
  const std::lock_guard guard(mutex_);
  cancelled_ = false;
  running_ = true;
}

void PortGate::withdraw_run() {
  const std::lock_guard guard(mutex_);
  running_ = false;
}

void PortGate::cancel() {
  cancelled_ = true;
  changed_.notify_all();
}

void PortGate::cancel_run() {
  const std::lock_guard guard(mutex_);
  cancel();
}

// A sequence that waits for nobody to come any more is told when the last one has what it came for.
std::unique_lock<std::mutex> PortGate::take_turn() {
  coming_.fetch_add(1);
  std::unique_lock turn(mutex_);
  if (coming_.fetch_sub(1) == 1) {
    changed_.notify_all();
  }
  return turn;
}

PortGate::Configuration::Configuration(PortGate& gate) : gate_(gate) {
  if (gate.configurator_ == std::this_thread::get_id()) {
    return;
  }
  turn_ = gate.take_turn();
  while (gate.running_) {
    gate.cancel();
    gate.changed_.wait(turn_);
  }
  gate.configurator_ = std::this_thread::get_id();
}

PortGate::Configuration::~Configuration() {
  if (turn_.owns_lock()) {
    gate_.configurator_ = std::thread::id();
  }
}

bool PortGate::Run::hold_until(Clock::time_point deadline) {
  if (Clock::now() < deadline) {
    gate_.changed_.wait_until(turn_, deadline, [this] { return gate_.cancelled_; });
  }
  return !gate_.cancelled_;
}

bool PortGate::Run::let_others_in() {
  gate_.changed_.wait(turn_, [this] { return gate_.coming_ == 0; });
  return !gate_.cancelled_;
}

// The mutex is let go of last; whoever then takes it may destroy it.
void PortGate::Run::end() {
  if (turn_.owns_lock()) {
    gate_.running_ = false;
    gate_.changed_.notify_all();
    turn_.unlock();
    turn_.release();
  }
}
