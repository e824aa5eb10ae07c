// Who may drive a port: a plain write, a change of its configuration, or the action sequence that
// runs on it.
#pragma once

#include "platform/mutex.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

/// One mutex, held by whoever drives the port, guards all of it. A sequence holds it but while it
/// waits between two steps, and lets in whoever has come for it after each step: a mutex is not
/// fair by itself. A change of configuration ends the sequence first.
class WEXD_CAPABILITY("port gate") PortGate {
public:
  using Clock = std::chrono::steady_clock;

  class Write;
  class Configuration;
  class Run;

  /// Whether somebody drives the port, or a sequence runs on it. Never blocks. Any thread.
  [[nodiscard]] bool busy();

  /// Says that a sequence runs, before the thread exists that is to run it, so that whoever wants
  /// to end it finds it. Only one may run.
  void announce_run() WEXD_UNCHECKED_LOCKING;
  /// The thread could not be made.
  void withdraw_run() WEXD_UNCHECKED_LOCKING;
  /// Asks the sequence that runs, if one does, to end; does not wait for that. Not for whoever has
  /// the gate.
  void cancel_run() WEXD_UNCHECKED_LOCKING;

private:
  [[nodiscard]] std::unique_lock<std::mutex> take_turn();
  void cancel();

  std::mutex mutex_;
  /// Wakes a sequence that waits, and whoever waits for a sequence's end.
  std::condition_variable changed_;
  /// Those who come for the mutex while a sequence may hold it. Counted up without it, down with
  /// it.
  std::atomic<unsigned> coming_{0};
  /// With the mutex.
  bool running_ = false;
  bool cancelled_ = false;
  /// The thread that changes the configuration; what it calls may change more of it.
  std::atomic<std::thread::id> configurator_{};
};

/// A plain write of the port's state, between two steps of a sequence.
class WEXD_SCOPED_CAPABILITY PortGate::Write {
public:
  explicit Write(PortGate& gate) WEXD_ACQUIRE(gate) WEXD_UNCHECKED_LOCKING
      : turn_(gate.take_turn()) {}
  ~Write() WEXD_RELEASE() {}
  Write(const Write&) = delete;
  Write& operator=(const Write&) = delete;

private:
  const std::unique_lock<std::mutex> turn_;
};

/// A change of the port's configuration: ends a running sequence, waits for its end, and keeps
/// everybody else out. Nested use on the same thread is allowed and does nothing.
class WEXD_SCOPED_CAPABILITY PortGate::Configuration {
public:
  explicit Configuration(PortGate& gate) WEXD_ACQUIRE(gate) WEXD_UNCHECKED_LOCKING;
  ~Configuration() WEXD_RELEASE() WEXD_UNCHECKED_LOCKING;
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

private:
  PortGate& gate_;
  std::unique_lock<std::mutex> turn_;
};

/// The run of a sequence that has been announced, on the sequence's thread.
class WEXD_SCOPED_CAPABILITY PortGate::Run {
public:
  explicit Run(PortGate& gate) WEXD_ACQUIRE(gate) WEXD_UNCHECKED_LOCKING : gate_(gate),
                                                                           turn_(gate.mutex_) {}
  ~Run() WEXD_RELEASE() WEXD_UNCHECKED_LOCKING { end(); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  /// Leaves the gate open until then. False when the sequence has been cancelled.
  [[nodiscard]] bool hold_until(Clock::time_point deadline) WEXD_UNCHECKED_LOCKING;
  /// Leaves the gate open until nobody comes for it any more. False when the sequence has been
  /// cancelled.
  [[nodiscard]] bool let_others_in() WEXD_UNCHECKED_LOCKING;

  /// Leaves the gate open while `work` is done.
  template <typename Work>
  void aside(Work work) WEXD_UNCHECKED_LOCKING {
    turn_.unlock();
    work();
    turn_.lock();
  }

  /// The sequence is over. Whoever waited for that may destroy the gate at once: nothing touches it
  /// afterwards.
  void end() WEXD_RELEASE() WEXD_UNCHECKED_LOCKING;

private:
  PortGate& gate_;
  std::unique_lock<std::mutex> turn_;
};
