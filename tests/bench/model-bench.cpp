// Costs inside the process: a change of state with its events, and the parts of the start-up that
// grow with the number of ports.
#include "event/event.h"
#include "param/param.h"
#include "platform/log.h"
#include "port/ioport-list.h"
#include "port/ioport.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <string>
#include <tuple>

namespace {

IoPortRef make_port(gint number) {
  IoPortRef port = io_port_new();
  port->type = PORT_OUTPUT;
  port->number = number;
  port->name = "port" + std::to_string(number);
  io_port_add_property(port.get(), "ioport", "true");
  std::ignore = io_port_set_backend(port.get(), BACKEND_CHECK);
  g_assert_true(io_port_setup(port.get()));
  return port;
}

// The list with that many ports, for the length of a benchmark.
class Ports {
public:
  explicit Ports(int64_t count) {
    for (gint number = 0; number < count; number++) {
      io_port_list_add(make_port(number).get());
    }
  }
  ~Ports() { io_port_list_free(); }
  Ports(const Ports&) = delete;
  Ports& operator=(const Ports&) = delete;
};

void state_change(benchmark::State& state) {
  const auto port = make_port(1);
  for (int64_t i = 0; i < state.range(0); i++) {
    IoEventPtr event(new IoEvent);
    event->declaration = event_io_port;
    g_assert_true(io_event_declare_event(port.get(), event.get()));
    port->events.push_front(std::move(event));
  }
  bool value = false;
  for (auto _ : state) {
    value = !value;
    g_assert_true(io_port_set_state(port.get(), value));
  }
}
BENCHMARK(state_change)->ArgName("events")->Arg(0)->Arg(1)->Arg(8);

void default_names(benchmark::State& state) {
  const Ports ports(state.range(0));
  for (auto _ : state) {
    io_port_list_update_names();
  }
  state.SetComplexityN(state.range(0));
}
BENCHMARK(default_names)
    ->ArgName("ports")
    ->RangeMultiplier(8)
    ->Range(8, 4096)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

void save_all_in_memory(benchmark::State& state) {
  const Ports ports(state.range(0));
  const std::string file = "/dev/shm/wexd-bench-" + std::to_string(getpid()) + ".conf";
  for (auto _ : state) {
    g_assert_true(param_save_all(file.c_str()));
  }
  std::filesystem::remove(file);
  state.SetComplexityN(state.range(0));
}
BENCHMARK(save_all_in_memory)
    ->ArgName("ports")
    ->RangeMultiplier(4)
    ->Range(8, 2048)
    ->Unit(benchmark::kMillisecond)
    ->Complexity();

} // namespace

int main(int argc, char* argv[]) {
  benchmark::Initialize(&argc, argv);
  // What the daemon logs goes where a device without a reader would send it; the results stay.
  const int results = dup(STDOUT_FILENO);
  nv_log_stdout();
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDOUT_FILENO);
  benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
  reporter.SetOutputStream(&std::cerr);
  reporter.SetErrorStream(&std::cerr);
  dup2(results, STDERR_FILENO);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}
