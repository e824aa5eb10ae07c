// What several clients at once amount to: the main thread does one request after the other while
// the sequences they started run on threads of their own. Made for the thread sanitizer, which
// sees every unguarded access; the counts hold in any build.
#include "support/port-fixture.h"

#include "port/action-sequence.h"

#include <chrono>
#include <fstream>
#include <random>

namespace {

constexpr int operations = 20'000;
constexpr auto patience = std::chrono::seconds(60);

int threads_of_process() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    if (word == "Threads:") {
      int count = 0;
      status >> count;
      return count;
    }
  }
  return -1;
}

// Ends the process, with a message, when nothing has been done for too long.
class Watchdog {
public:
  Watchdog() : thread_([this] { watch(); }) {}
  ~Watchdog() {
    {
      const std::lock_guard guard(mutex_);
      over_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  void feed() { progress_++; }

private:
  void watch() {
    std::unique_lock guard(mutex_);
    auto seen = progress_.load();
    while (!wake_.wait_for(guard, patience, [this] { return over_; })) {
      if (progress_ == seen) {
        fprintf(stderr, "deadlock after %d operations\n", seen);
        abort();
      }
      seen = progress_;
    }
  }

  std::atomic<int> progress_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool over_ = false;
  std::thread thread_;
};

struct Stress : PortTest {
  void SetUp() override {
    PortTest::SetUp();
    fake_backend::listing = false;
  }

  /// Eight ports of every sort, with events.
  void describe() {
    const std::vector<PortDescription> descriptions{
        {.type = PORT_OUTPUT},
        {.type = PORT_OUTPUT},
        {.type = PORT_OUTPUT, .optional = true},
        {.type = PORT_OUTPUT, .optional = true},
        {.type = PORT_IO_CTRL, .direction_input = false},
        {.type = PORT_IO_CTRL, .backend = BACKEND_IIO, .direction_input = false},
        {.type = PORT_OUTPUT, .backend = BACKEND_VIRTUAL, .properties = {"virtual"}},
        {.type = PORT_INPUT, .backend = BACKEND_IIO_INTERRUPT, .supervised = true},
    };
    gint number = 0;
    for (auto description : descriptions) {
      description.number = number++;
      description.name = "port" + std::to_string(description.number);
      IoPort* const port = add(description);
      give_event(port, "IOPort");
      give_event(port, "PortAny");
      IoEvent* const known = give_event(port, "Known", false);
      known->key_values.push_back(
          {.key = "state", .value = "PORT_STATUS", .type = "bool", .property = true});
      io_event_declare_event(port, known);
    }
    count = number;
  }

  gint pick(gint upper) { return std::uniform_int_distribution<gint>(0, upper - 1)(random); }
  bool toss() { return pick(2) == 1; }

  void start(IoPort* port) {
    if (io_port_lock_taken(port)) {
      return;
    }
    const bool is_virtual = io_port_input(port) || port->backend == BACKEND_VIRTUAL || pick(4) == 0;
    ActionSequence steps;
    for (int i = 0, length = 1 + pick(4); i < length; i++) {
      steps.push_back({.port = port,
                       .trigger = is_virtual ? Trigger::Virtual : Trigger::Hardware,
                       .state = toss(),
                       .duration_ms = pick(4)});
    }
    if (io_port_run_action_sequence(port, std::move(steps)) == SequenceStart::Started) {
      starts++;
    }
  }

  static void drop(IoPort* port) {
    if (port->optional) {
      io_port_close(port);
      io_port_list_move_to_dynamic(port);
    }
  }

  void rename(IoPort* port) {
    const std::string name = "name" + std::to_string(pick(100));
    io_port_set_input_name(port, name.c_str());
    io_port_set_output_name(port, name.c_str());
  }

  void act(IoPort* port) {
    switch (pick(12)) {
    case 0:
      io_port_set_activelow(port, toss(), toss() ? PortSide::Input : PortSide::Output);
      break;
    case 1:
      io_port_set_direction(port, toss() ? Direction::Input : Direction::Output);
      break;
    case 2:
      if (!io_port_input(port) && port->backend != BACKEND_VIRTUAL) {
        io_port_set_state(port, toss());
      }
      break;
    case 3:
      io_port_set_virtual(port, toss());
      break;
    case 4:
      io_port_trigger(port, ReportedState(static_cast<SupervisedState>(pick(4))));
      break;
    case 5:
      rename(port);
      break;
    case 6:
      io_port_set_enabled(port, pick(4) != 0);
      break;
    case 7:
      drop(port);
      break;
    case 8:
      io_port_list_get_port_any_value();
      io_port_get_state(port);
      break;
    case 9:
      io_port_set_supervised(port, toss());
      break;
    default:
      start(port);
      break;
    }
  }

  /// One request of one client.
  void request() {
    const IoPortRef port = io_port_list_get_port(pick(count));
    if (port == nullptr) {
      io_port_list_setup_dynamic_ports();
      io_port_list_set_watch();
      io_port_list_declare_events();
      return;
    }
    act(port.get());
  }

  std::mt19937 random{20'000};
  gint count = 0;
  std::size_t starts = 0;
};

} // namespace

TEST_F(Stress, loses_no_sequence_and_leaks_nothing) {
  describe();
  // The thread sanitizer starts a thread of its own with the first thread.
  std::thread([] {}).join();
  const int threads_before = threads_of_process();
  {
    Watchdog watchdog;
    for (int i = 0; i < operations; i++) {
      request();
      watchdog.feed();
      if (i % 100 == 0) {
        fake_events::take_log();
        take_changes();
        take_settings();
      }
    }
    action_sequences_stop();
  }

  EXPECT_EQ(dones(), starts);
  EXPECT_GT(starts, 500U) << "too few sequences to mean anything";
  EXPECT_TRUE(run_until([&] { return threads_of_process() == threads_before; }))
      << threads_of_process() << " threads, " << threads_before << " at the start";
  // A port that was dropped last has no record before it is back in service.
  io_port_list_setup_dynamic_ports();
  EXPECT_EQ(fake_backend::live_records(), count);
  for (gint number = 0; number < count; number++) {
    const IoPortRef port = io_port_list_get_port(number);
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->refcount, 2U) << "somebody still holds port " << number;
    EXPECT_FALSE(io_port_lock_taken(port.get()));
  }
  take_wanted();
}

TEST_F(Stress, may_destroy_the_ports_while_sequences_run) {
  Watchdog watchdog;
  for (int round = 0; round < 100; round++) {
    watchdog.feed();
    starts = 0;
    take_dones();
    describe();
    for (int i = 0; i < 30; i++) {
      start(io_port_list_get_port(pick(count)).get());
    }
    io_port_list_free();
    ASSERT_EQ(dones(), starts);
    ASSERT_EQ(fake_backend::live_records(), 0);
    fake_events::take_log();
  }
}
