#include "support/fake-backend.h"

#include "port/backend-registry.h"

#include <array>
#include <cstdlib>

namespace fake_backend {

std::set<gint> failing;
std::map<gint, int> failing_after;
std::atomic<bool> listing{true};
bool refuse_ranges = false;

namespace {

std::mutex mutex;
std::vector<std::string> calls;
std::atomic<int> records{0};

void note(const IoPort* port, const std::string& call) {
  if (listing) {
    const std::lock_guard guard(mutex);
    calls.push_back(std::to_string(port->number) + ": " + call);
  }
}

std::string digit(bool value) {
  return value ? "1" : "0";
}

bool setup(IoPort* port, Level start) {
  note(port, "setup " + digit(start == Level::High));
  if (const auto left = failing_after.find(port->number);
      left != failing_after.end() && left->second-- <= 0) {
    return false;
  }
  return !failing.contains(port->number);
}

Level get_state(IoPort* port) {
  const auto* kept = record(port);
  return kept != nullptr ? kept->level.load() : Level::Low;
}

void set_state(IoPort* port, Level level) {
  note(port, "set_state " + digit(level == Level::High));
  if (auto* kept = record(port)) {
    kept->level = level;
  }
}

bool set_watch(IoPort* port) {
  note(port, "set_watch");
  return true;
}

void set_direction(IoPort* port, Direction direction) {
  note(port, "set_direction " + digit(direction == Direction::Input));
}

// An attribute range="closed 0 100" adds a range, as the supervised backends' range elements do.
void parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  record(port)->attributes.push_back(std::string(element) + '/' + key + '=' + value);
  if (!g_str_equal(key, "range")) {
    return;
  }
  g_auto(GStrv) words = g_strsplit(value, " ", 3);
  g_assert(io_port_add_supervised_range(port, words[0], atoi(words[1]), atoi(words[2]), nullptr));
}

void release(IoPort* port) {
  if (port->backend_private != nullptr) {
    note(port, "free");
    delete static_cast<Record*>(std::exchange(port->backend_private, nullptr));
    records--;
  }
}

void close(IoPort* port) {
  note(port, "close");
}

bool set_supervised(IoPort* port) {
  note(port, "set_supervised " + digit(port->supervised));
  return true;
}

bool set_ranges(IoPort* port, SupervisedRanges ranges, GError** error) {
  return !refuse_ranges && supervised_set_supervised_ranges(port, std::move(ranges), error);
}

std::optional<SupervisedReadout> get_readout(IoPort* port, GError** error) {
  const auto* kept = record(port);
  if (kept->readout_error) {
    g_set_error_literal(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC,
                        kept->readout_error->c_str());
    return std::nullopt;
  }
  return kept->readout;
}

constexpr PortFunctions plain{
    .setup = setup,
    .get_state = get_state,
    .set_state = set_state,
    .set_watch = set_watch,
    .set_direction = set_direction,
    .parse_data = parse_data,
    .free = release,
};

constexpr PortFunctions with_supervision() {
  PortFunctions table = plain;
  table.is_supervisable = supervised_is_supervisable;
  table.set_supervised = set_supervised;
  table.get_supervised_ranges = supervised_get_supervised_ranges;
  table.set_supervised_ranges = set_ranges;
  table.get_supervised_readout = get_readout;
  return table;
}

constexpr PortFunctions with_close() {
  PortFunctions table = with_supervision();
  table.close = close;
  return table;
}

constexpr PortFunctions supervised = with_supervision();
constexpr PortFunctions closing = with_close();

template <const PortFunctions* Table>
const PortFunctions* attach(IoPort* port) {
  if (port->backend_private == nullptr) {
    port->backend_private = new Record;
    records++;
  }
  return Table;
}

constexpr std::array kinds{
    BackendEntry{BACKEND_VIRTUAL, "virtual", attach<&plain>},
    BackendEntry{BACKEND_GPIO, "gpio", attach<&plain>},
    BackendEntry{BACKEND_SPIADC, "spiadc", attach<&plain>},
    BackendEntry{BACKEND_SPI, "spi", attach<&plain>},
    BackendEntry{BACKEND_IIO, "iio", attach<&supervised>},
    BackendEntry{BACKEND_IIO_INTERRUPT, "iio-interrupt", attach<&closing>},
    BackendEntry{BACKEND_SYSFS, "sysfs", attach<&plain>},
    BackendEntry{BACKEND_IOBOX, "iobox", attach<&plain>},
    BackendEntry{BACKEND_NULL, "null", attach<&plain>},
    BackendEntry{BACKEND_CHECK, "check", attach<&plain>},
    BackendEntry{BACKEND_ZWAVE, "zwave", attach<&plain>},
};

} // namespace

Record* record(const IoPort* port) {
  return static_cast<Record*>(port->backend_private);
}

std::vector<std::string> take_calls() {
  const std::lock_guard guard(mutex);
  return std::exchange(calls, {});
}

int live_records() {
  return records;
}

void reset() {
  failing_after = {};
  failing.clear();
  listing = true;
  refuse_ranges = false;
  take_calls();
}

} // namespace fake_backend

std::span<const BackendEntry> backend_registry() {
  return fake_backend::kinds;
}
