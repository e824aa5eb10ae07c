// A sequence is announced at its port's gate before its thread exists, and the end of the run is
// the thread's last touch of the port, so that whoever ends a sequence may free its port at once.
#include "port/action-sequence.h"

#include "platform/checks.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/mutex.h"
#include "platform/numbers.h"
#include "port/port-observer.h"
#include "port/port-place.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <tuple>
#include <utility>

namespace {

/// The sequences that run.
struct Running {
  /// Taken last, and held briefly.
  Mutex running_mutex;
  std::condition_variable_any thread_ended;
  /// Each kept alive by the sequence's reference while it stands here.
  std::set<IoPort*> ports WEXD_GUARDED_BY(running_mutex);
  /// Those that have not yet let go of everything.
  guint live_threads WEXD_GUARDED_BY(running_mutex) = 0;
  /// The most of them at once since there was none.
  guint most_threads WEXD_GUARDED_BY(running_mutex) = 0;
};

Running running;

constexpr gint32 us_per_ms = 1000;

// The product is formed in 32 bits on purpose: a duration above 2,147,483 ms wraps and is not held.
std::chrono::microseconds hold_time(gint32 duration_ms) {
  return std::chrono::microseconds(wrapping_product(duration_ms, us_per_ms));
}

void apply_step(IoPort* port, const ActionStep& step) WEXD_REQUIRES(port->gate) {
  if (step.trigger == Trigger::Virtual) {
    std::ignore = io_port_set_virtual(port, step.state);
  } else {
    io_port_set_state_internal(port, step.state);
  }
}

// Counts the steps that follow each other without a pause. What they announce would pile up in
// memory, and the answers to other clients would queue behind it.
class Pace {
public:
  /// Called after each step; leaves the port's gate open for a moment when what was announced has
  /// to leave first.
  void after_step(PortGate::Run& run, std::chrono::microseconds held) {
    quick_steps_ = held < pause ? quick_steps_ + 1 : 0;
    if (quick_steps_ < burst) {
      return;
    }
    quick_steps_ = 0;
    run.aside([] { port_observer.burst_announced(); });
  }

private:
  static constexpr guint burst = 64;
  static constexpr std::chrono::milliseconds pause{1};
  guint quick_steps_ = 0;
};

// Applies the step and holds it. False when the sequence was cancelled.
bool run_step(IoPort* port, const ActionStep& step, Pace& pace, PortGate::Run& run)
    WEXD_REQUIRES(port->gate) {
  apply_step(port, step);
  const auto held = hold_time(step.duration_ms);
  if (!run.hold_until(PortGate::Clock::now() + held)) {
    return false;
  }
  pace.after_step(run, held);
  return run.let_others_in();
}

void forget_running(IoPort* port) {
  const MutexLock guard(running.running_mutex);
  running.ports.erase(port);
}

void io_port_run_sequence_internal(ActionSequence steps) {
  IoPort* const port = steps.front().port;
  WEXD_RETURN_IF_FAIL(port != NULL);

  PortGate::Run run(port->gate);
  Pace pace;
  for (const auto& step : steps) {
    if (!run_step(port, step, pace, run)) {
      break;
    }
  }
  steps.clear();
  steps.shrink_to_fit();
  port_observer.sequence_done(port->number);
  forget_running(port);
  const bool last = port->refcount.fetch_sub(1) == 1;
  run.end();
  if (last) {
    io_port_free(port);
  }
}

// A few sequences, again and again, had better keep their memory.
void give_back_after_many() WEXD_REQUIRES(running.running_mutex) {
  constexpr guint many = 16;
  if (running.live_threads == 0 && std::exchange(running.most_threads, 0) >= many) {
    memory_give_back_soon();
  }
}

gpointer action_thread(gpointer data) {
  const std::unique_ptr<ActionSequence> steps(static_cast<ActionSequence*>(data));
  io_port_run_sequence_internal(std::move(*steps));

  const MutexLock guard(running.running_mutex);
  running.live_threads--;
  give_back_after_many();
  running.thread_ended.notify_all();
  return nullptr;
}

void mark_running(IoPort* ioport) {
  ioport->gate.announce_run();
  const MutexLock guard(running.running_mutex);
  running.ports.insert(ioport);
  running.live_threads++;
  running.most_threads = std::max(running.most_threads, running.live_threads);
}

void unmark_running(IoPort* ioport) {
  ioport->gate.withdraw_run();
  const MutexLock guard(running.running_mutex);
  running.ports.erase(ioport);
  running.live_threads--;
}

std::vector<IoPortRef> ports_with_sequences() {
  const MutexLock guard(running.running_mutex);
  std::vector<IoPortRef> ports;
  std::ranges::transform(running.ports, std::back_inserter(ports), io_port_ref);
  return ports;
}

} // namespace

SequenceStart io_port_run_action_sequence(IoPort* ioport, ActionSequence steps) {
  WEXD_ASSERT_NONNULL(ioport);
  g_assert(!steps.empty());

  const bool hardware_step = steps.front().trigger == Trigger::Hardware;
  if ((hardware_step && (io_port_input(ioport) || ioport->backend == BACKEND_VIRTUAL))
      || !ioport->is_setup) {
    const PortPlace place(ioport);
    g_warning("%sSet action seq on incorrect port", log_prefix);
    return SequenceStart::Refused;
  }

  mark_running(io_port_ref(ioport).release());
  auto owned = std::make_unique<ActionSequence>(std::move(steps));
  g_autoptr(GError) error = nullptr;
  GThread* const thread = g_thread_try_new("Action thread", action_thread, owned.get(), &error);
  if (thread == nullptr) {
    g_warning("%sNo thread for the action sequence of port %d: %s", log_prefix, ioport->number,
              error->message);
    unmark_running(ioport);
    io_port_unref(ioport);
    return SequenceStart::NoThread;
  }
  owned.release(); // NOLINT(bugprone-unused-return-value): the thread owns it now
  g_thread_unref(thread);
  return SequenceStart::Started;
}

void io_port_stop_action_sequence(IoPort* ioport) {
  const PortGate::Configuration ended(ioport->gate);
}

std::vector<gint> action_sequences_running() {
  std::vector<gint> numbers;
  {
    const MutexLock guard(running.running_mutex);
    std::ranges::transform(running.ports, std::back_inserter(numbers), &IoPort::number);
  }
  std::ranges::sort(numbers);
  return numbers;
}

void action_sequences_stop() {
  for (const auto& port : ports_with_sequences()) {
    port->gate.cancel_run();
  }
  const MutexLock guard(running.running_mutex);
  while (running.live_threads != 0) {
    running.thread_ended.wait(running.running_mutex);
  }
}
