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

std::string word(gboolean value) {
  return value ? "1" : "0";
}

gboolean setup(IoPort* port, gboolean activelow_output) {
  note(port, "setup " + word(activelow_output));
  if (const auto left = failing_after.find(port->number);
      left != failing_after.end() && left->second-- <= 0) {
    return FALSE;
  }
  return !failing.contains(port->number);
}

guint get_state(IoPort* port) {
  const auto* kept = record(port);
  return kept != nullptr ? kept->level.load() : 0;
}

void set_state(IoPort* port, gint state) {
  note(port, "set_state " + std::to_string(state));
  if (auto* kept = record(port)) {
    kept->level = static_cast<guint>(state);
  }
}

gboolean set_watch(IoPort* port) {
  note(port, "set_watch");
  return TRUE;
}

void set_direction(IoPort* port, gboolean input) {
  note(port, "set_direction " + word(input));
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

gboolean set_supervised(IoPort* port, gboolean supervised) {
  note(port, "set_supervised " + word(supervised));
  return TRUE;
}

gboolean set_ranges(IoPort* port, GList* ranges, GError** error) {
  return !refuse_ranges && supervised_set_supervised_ranges(port, ranges, error);
}

gboolean get_readout(IoPort* port, guint* state, guint* level, GError** error) {
  const auto* kept = record(port);
  if (kept->readout_error) {
    g_set_error_literal(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC,
                        kept->readout_error->c_str());
    return FALSE;
  }
  *state = kept->readout_state;
  *level = kept->readout_level;
  return TRUE;
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
