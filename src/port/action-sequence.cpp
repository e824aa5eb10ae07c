// The sequence's thread holds the port's lock except while it waits between steps, and between any
// two steps it lets in whoever waits to write the port's state. It is marked as running before it
// starts, so that a canceller never meets a thread that holds the lock without saying so; the
// thread's last touch of the port happens under `sequence_lock`, so that a canceller may free the
// port as soon as it has been told of the end.
#include "port/action-sequence.h"

#include "platform/checks.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "port/port-observer.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <tuple>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;

// Ports on which a sequence runs (each kept alive by the sequence's reference while it is listed),
// and the number of threads that have not yet let go of everything. All under the mutex, which is
// taken last and held briefly.
std::mutex running_mutex;
std::condition_variable thread_ended;
std::set<IoPort*> running_ports;
guint live_threads = 0;
/// The most of them at once since there was none.
guint most_threads = 0;

constexpr guint32 us_per_ms = 1000;

// The product is formed in 32 bits on purpose: a duration above 2,147,483 ms wraps and is not held.
std::chrono::microseconds hold_time(gint32 duration_ms) {
  return std::chrono::microseconds(
      static_cast<gint32>(static_cast<guint32>(duration_ms) * us_per_ms));
}

bool take_cancel(IoPort* port) {
  return port->cancel_sequence.exchange(false);
}

void apply_step(const ActionStep& step) {
  if (step.is_virtual) {
    std::ignore = io_port_set_virtual(step.port, step.state);
  } else {
    io_port_set_state_internal(step.port, step.state);
  }
}

// True when the step was held to its end, false when the sequence was cancelled.
bool hold_step(IoPort* port, std::unique_lock<std::mutex>& guard, Clock::time_point deadline) {
  if (take_cancel(port)) {
    return false;
  }
  while (Clock::now() < deadline) {
    port->sequence_wake.wait_until(guard, deadline);
    if (take_cancel(port)) {
      return false;
    }
  }
  return true;
}

// A mutex is not fair: without this wait, a sequence of steps of no length would take it again and
// again before a writer gets it.
void let_writers_in(IoPort* port, std::unique_lock<std::mutex>& guard) {
  port->sequence_wake.wait(guard, [port] { return port->waiting_writers == 0; });
}

// Counts the steps that follow each other without a pause. What they announce would pile up in
// memory, and the answers to other clients would queue behind it.
class Pace {
public:
  /// Called after each step, with the port's lock held; lends the lock out for a moment when what
  /// was announced has to leave first.
  void after_step(std::unique_lock<std::mutex>& guard, std::chrono::microseconds held) {
    quick_steps_ = held < pause ? quick_steps_ + 1 : 0;
    if (quick_steps_ < burst) {
      return;
    }
    quick_steps_ = 0;
    guard.unlock();
    announce(port_observer.burst_announced);
    guard.lock();
  }

private:
  static constexpr guint burst = 64;
  static constexpr std::chrono::milliseconds pause{1};
  guint quick_steps_ = 0;
};

// Applies the step and holds it. False when the sequence was cancelled.
bool run_step(const ActionStep& step, Pace& pace, std::unique_lock<std::mutex>& guard) {
  apply_step(step);
  const auto held = hold_time(step.duration_ms);
  if (!hold_step(step.port, guard, Clock::now() + held)) {
    return false;
  }
  pace.after_step(guard, held);
  let_writers_in(step.port, guard);
  return !take_cancel(step.port);
}

void forget_running(IoPort* port) {
  const std::lock_guard guard(running_mutex);
  running_ports.erase(port);
}

// Says that the sequence is over and drops its reference. Nothing touches the port afterwards.
void finish(IoPort* port, std::unique_lock<std::mutex>& guard) {
  forget_running(port);
  bool last = false;
  {
    const std::lock_guard sequence_guard(port->sequence_lock);
    port->sequence_running = false;
    guard.unlock();
    guard.release();
    last = port->refcount.fetch_sub(1) == 1;
    port->sequence_done.notify_all();
  }
  if (last) {
    io_port_free(port);
  }
}

void io_port_run_sequence_internal(ActionSequence steps) {
  IoPort* const port = steps.front().port;
  WEXD_RETURN_IF_FAIL(port != NULL);

  std::unique_lock guard(port->lock);
  Pace pace;
  for (const auto& step : steps) {
    if (!run_step(step, pace, guard)) {
      break;
    }
  }
  steps.clear();
  steps.shrink_to_fit();
  announce(port_observer.sequence_done, port->number);
  finish(port, guard);
}

// With the mutex held. A few sequences, again and again, had better keep their memory.
void give_back_after_many() {
  constexpr guint many = 16;
  if (live_threads == 0 && std::exchange(most_threads, 0) >= many) {
    memory_give_back_soon();
  }
}

gpointer action_thread(gpointer data) {
  const std::unique_ptr<ActionSequence> steps(static_cast<ActionSequence*>(data));
  io_port_run_sequence_internal(std::move(*steps));

  const std::lock_guard guard(running_mutex);
  live_threads--;
  give_back_after_many();
  thread_ended.notify_all();
  return nullptr;
}

void mark_running(IoPort* ioport) {
  {
    const std::lock_guard guard(ioport->sequence_lock);
    ioport->cancel_sequence = false;
    ioport->sequence_running = true;
  }
  const std::lock_guard guard(running_mutex);
  running_ports.insert(ioport);
  live_threads++;
  most_threads = std::max(most_threads, live_threads);
}

void unmark_running(IoPort* ioport) {
  {
    const std::lock_guard guard(ioport->sequence_lock);
    ioport->sequence_running = false;
  }
  const std::lock_guard guard(running_mutex);
  running_ports.erase(ioport);
  live_threads--;
}

IoPortRef any_running_port() {
  const std::lock_guard guard(running_mutex);
  return IoPortRef(running_ports.empty() ? nullptr : io_port_ref(*running_ports.begin()));
}

} // namespace

SequenceStart io_port_run_action_sequence(IoPort* ioport, ActionSequence steps) {
  WEXD_ASSERT_NONNULL(ioport);
  g_assert(!steps.empty());

  const bool hardware_step = !steps.front().is_virtual;
  if ((hardware_step && (io_port_input(ioport) || ioport->backend == BACKEND_VIRTUAL))
      || !ioport->is_setup) {
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
  const PortConfigLock cancelled(ioport);
}

std::vector<gint> action_sequences_running() {
  std::vector<gint> numbers;
  {
    const std::lock_guard guard(running_mutex);
    std::ranges::transform(running_ports, std::back_inserter(numbers), &IoPort::number);
  }
  std::ranges::sort(numbers);
  return numbers;
}

void action_sequences_stop() {
  while (const IoPortRef port = any_running_port()) {
    io_port_stop_action_sequence(port.get());
  }
  std::unique_lock guard(running_mutex);
  thread_ended.wait(guard, [] { return live_threads == 0; });
}
