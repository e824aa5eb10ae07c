// How late the steps of an action sequence fire against their deadlines, beside a bare wait on a
// condition variable that holds the same durations at the same time on a thread of its own.
//
//     lateness-bench STEPS
//
// prints "microseconds of the step,microseconds of the wait" for each.
#include "platform/log.h"
#include "port/action-sequence.h"
#include "port/ioport.h"
#include "port/port-observer.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

namespace {

constexpr int shortest_ms = 1;
constexpr int longest_ms = 20;

/// When each step was announced, in microseconds on the monotonic clock.
std::vector<gint64> announced;
std::mutex mutex;
std::condition_variable ended;
bool over = false;

std::vector<gint32> make_durations(std::size_t steps) {
  std::mt19937 random(1000);
  std::uniform_int_distribution<gint32> length(shortest_ms, longest_ms);
  std::vector<gint32> durations(steps);
  std::ranges::generate(durations, [&] { return length(random); });
  return durations;
}

// The start of a step is its predecessor's deadline.
std::vector<gint64> lateness(const std::vector<gint64>& starts,
                             const std::vector<gint32>& durations) {
  std::vector<gint64> late;
  for (std::size_t i = 1; i < starts.size(); i++) {
    late.push_back(starts[i] - starts[i - 1] - gint64{1000} * durations[i - 1]);
  }
  return late;
}

std::vector<gint64> bare_waits(const std::vector<gint32>& durations) {
  GMutex lock;
  GCond never;
  g_mutex_init(&lock);
  g_cond_init(&never);
  std::vector<gint64> starts;
  g_mutex_lock(&lock);
  for (const gint32 duration_ms : durations) {
    starts.push_back(g_get_monotonic_time());
    const gint64 deadline = starts.back() + gint64{1000} * duration_ms;
    while (g_cond_wait_until(&never, &lock, deadline)) {
    }
  }
  starts.push_back(g_get_monotonic_time());
  g_mutex_unlock(&lock);
  g_mutex_clear(&lock);
  g_cond_clear(&never);
  return starts;
}

void run_sequence(const std::vector<gint32>& durations) {
  const IoPortRef port = io_port_new();
  port->type = PORT_OUTPUT;
  port->number = 1;
  std::ignore = io_port_set_backend(port.get(), BACKEND_CHECK);
  g_assert_true(io_port_setup(port.get()));
  ActionSequence sequence;
  bool value = false;
  for (const gint32 duration_ms : durations) {
    value = !value;
    sequence.push_back({.port = port.get(),
                        .trigger = Trigger::Hardware,
                        .state = value,
                        .duration_ms = duration_ms});
  }
  const auto started = io_port_run_action_sequence(port.get(), std::move(sequence));
  g_assert(started == SequenceStart::Started);
  std::unique_lock guard(mutex);
  ended.wait(guard, [] { return over; });
  guard.unlock();
  action_sequences_stop();
}

} // namespace

int main(int argc, char* argv[]) {
  // As the daemon does.
  constexpr unsigned long slack_ns = 1000;
  std::ignore = prctl(PR_SET_TIMERSLACK, slack_ns);
  const int steps = argc == 2 ? atoi(argv[1]) : 0;
  if (steps <= 0) {
    return 2;
  }
  port_observer.port_changed = [](const PortChange&) {
    announced.push_back(g_get_monotonic_time());
  };
  port_observer.sequence_done = [](gint) {
    const std::lock_guard guard(mutex);
    announced.push_back(g_get_monotonic_time());
    over = true;
    ended.notify_all();
  };
  const auto durations = make_durations(static_cast<std::size_t>(steps));
  announced.reserve(durations.size() + 1);

  std::vector<gint64> bare;
  std::thread beside([&] { bare = bare_waits(durations); });
  run_sequence(durations);
  beside.join();

  const auto late = lateness(announced, durations);
  const auto bare_late = lateness(bare, durations);
  for (std::size_t i = 0; i < late.size(); i++) {
    printf("%lld,%lld\n", static_cast<long long>(late[i]), static_cast<long long>(bare_late[i]));
  }
  return 0;
}
