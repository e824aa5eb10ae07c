#include "backends/iobox-backend.h"

#include "backends/backend-data.h"
#include "backends/bus-port.h"
#include "platform/log.h"
#include "platform/words.h"

#include <tuple>

namespace {

constexpr BusPortService service{.at = {.name = "com.norv.IOBoxMonitor",
                                        .path = "/com/norv/IOBoxMonitor",
                                        .interface_name = "com.norv.IOBoxMonitor",
                                        .flags = G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES}};
constexpr const char* default_model = "x5210";

struct IoboxPortData {
  bool supervisable = true;
  OptionalText box_name;
  BusPort bus;
};

void iobox_parse_data(IoPort* port, const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "box") && g_str_equal(key, "name")) {
    backend_data_ensure<IoboxPortData>(port)->box_name = value;
  }
}

constexpr std::array state_words{
    Word{"closed", SUPERVISED_CLOSED},
    Word{"cut", SUPERVISED_CUT},
    Word{"short", SUPERVISED_SHORT},
    Word{"open", SUPERVISED_OPEN},
};

// Every message of the set-up names the step by the number that operators know it by.
void setup_failed(gint line, const char* message) {
  g_log(G_LOG_DOMAIN, log_level_user, "%s%s@%d: %s", log_prefix, "iobox_port_setup", line, message);
}

SupervisedState iobox_state_to_wexd_state(const char* text) {
  constexpr gint line = 72;
  if (const auto state = find_word(state_words, text)) {
    return *state;
  }
  g_warning("%s%s@%d: Unrecognized iobox supervised state: %s", log_prefix, __func__, line, text);
  return SUPERVISED_UNDEFINED;
}

void tell_failed_call(const char* method, const GError* error) {
  constexpr gint line = 46;
  g_log(G_LOG_DOMAIN, log_level_user, "%s%s@%d: Failed to call method %s: %s", log_prefix,
        "iobox_dbus_call", line, method, error->message);
}

GVariant* iobox_dbus_call(IoboxPortData* data, const char* method, GVariant* arguments,
                          const GVariantType* reply_type) {
  return bus_port_call(data->bus, method, arguments, reply_type, tell_failed_call);
}

GVariant* number_argument(const IoPort* port) {
  return g_variant_new("(i)", port->number);
}

const char* mode_of(IoPort* port) {
  if (!io_port_input(port)) {
    return "out";
  }
  return io_port_supervised_input(port) ? "supervised_in" : "in";
}

void send_mode(IoPort* port, IoboxPortData* data) {
  [[maybe_unused]] g_autoptr(GVariant) reply =
      iobox_dbus_call(data, "SetIOMode",
                      g_variant_new("(iis)", port->number,
                                    data->bus.output_level == Level::High ? 1 : 0, mode_of(port)),
                      nullptr);
}

void set_output(IoboxPortData* data, Level level) {
  data->bus.output_level = level;
  std::ignore = bus_port_show_output(data->bus);
}

// The stored state as a plain contact: a cut line is an open one, a short a closed one.
SupervisedState plain_state(SupervisedState state) {
  switch (state) {
  case SUPERVISED_CUT:
    return SUPERVISED_OPEN;
  case SUPERVISED_SHORT:
    return SUPERVISED_CLOSED;
  default:
    return state;
  }
}

SupervisedState visible_state(IoPort* port, const IoboxPortData* data) {
  if (!data->bus.connected) {
    return SUPERVISED_OPEN;
  }
  const SupervisedState state = data->bus.state;
  return io_port_supervised_input(port) ? state : plain_state(state);
}

constexpr BusPortSignal state_changed{
    .signal = {.name = "IOStateChanged", .type = "(is)"}, .state_of = [](GVariant* text) {
      return iobox_state_to_wexd_state(g_variant_get_string(text, nullptr));
    }};

bool reach_monitor(IoPort* port, IoboxPortData* data) {
  constexpr gint line = 192;
  if (!bus_port_open(data->bus, port, service, nullptr)) {
    g_message("%s%s@%d: Proxy for %s not available", log_prefix, "iobox_port_setup", line,
              service.at.name);
    return false;
  }
  return true;
}

// A question of the set-up, and what is told when it is not answered.
struct Question {
  const char* method;
  gint line;
  const char* failure;
};

GVariant* ask(IoboxPortData* data, const Question& question, GVariant* arguments,
              const char* reply_type) {
  GVariant* const reply =
      iobox_dbus_call(data, question.method, arguments, G_VARIANT_TYPE(reply_type));
  if (reply == nullptr) {
    setup_failed(question.line, question.failure);
  }
  return reply;
}

std::optional<bool> ask_flag(IoboxPortData* data, const Question& question,
                             GVariant* arguments = nullptr) {
  g_autoptr(GVariant) reply = ask(data, question, arguments, "(b)");
  if (reply == nullptr) {
    return std::nullopt;
  }
  gboolean flag = FALSE;
  g_variant_get(reply, "(b)", &flag);
  return flag != FALSE;
}

OptionalText ask_text(IoboxPortData* data, const Question& question,
                      GVariant* arguments = nullptr) {
  g_autoptr(GVariant) reply = ask(data, question, arguments, "(s)");
  if (reply == nullptr) {
    return std::nullopt;
  }
  const gchar* text = nullptr;
  g_variant_get(reply, "(&s)", &text);
  return text;
}

bool box_attached(IoboxPortData* data) {
  return ask_flag(data, {"GetIOBoxConnected", 206, "Could not get IO box connection status"})
      .value_or(false);
}

bool box_fits(IoboxPortData* data) {
  const auto model = ask_text(data, {"GetIOBoxType", 218, "Could not get IO box type"});
  return model && *model == data->box_name.value_or(default_model);
}

bool port_usable(const IoPort* port, IoboxPortData* data) {
  return ask_text(data, {"GetIOPortStatus", 242, "Could not get IO port status"},
                  number_argument(port))
         == "enabled";
}

bool ask_supervisable(const IoPort* port, IoboxPortData* data) {
  const auto supervisable = ask_flag(data, {"GetSupervised", 256, "Could not get Supervised value"},
                                     number_argument(port));
  data->supervisable = supervisable.value_or(data->supervisable);
  return supervisable.has_value();
}

bool ask_input_state(const IoPort* port, IoboxPortData* data) {
  const auto state =
      ask_text(data, {"GetIOState", 278, "Could not get initial IO state"}, number_argument(port));
  if (state) {
    data->bus.state = iobox_state_to_wexd_state(state->c_str());
  }
  return state.has_value();
}

bool start_state(IoPort* port, IoboxPortData* data, Level start) {
  if (io_port_input(port)) {
    return ask_input_state(port, data);
  }
  set_output(data, start);
  send_mode(port, data);
  return true;
}

void follow_box(IoboxPortData* data) {
  constexpr gint line = 295;
  if (!bus_port_follow(data->bus, state_changed)) {
    setup_failed(line, "Failed to setup signal handler");
  }
}

bool iobox_port_setup(IoPort* port, Level start) {
  auto* data = backend_data_ensure<IoboxPortData>(port);
  io_port_set_enabled(port, false);
  data->bus.connected = false;
  if (!reach_monitor(port, data)) {
    return false;
  }
  data->bus.connected = true;
  data->bus.state = SUPERVISED_UNDEFINED;
  if (!box_attached(data) || !box_fits(data) || !port_usable(port, data)) {
    return false;
  }
  io_port_set_enabled(port, true);
  if (!ask_supervisable(port, data) || !start_state(port, data, start)) {
    return false;
  }
  follow_box(data);
  return true;
}

bool iobox_is_supervisable(IoPort* port) {
  const auto* data = backend_data<IoboxPortData>(port);
  return data == nullptr || data->supervisable;
}

bool iobox_set_supervised(IoPort* port) {
  auto* data = backend_data_ensure<IoboxPortData>(port);
  if (port->supervised && !data->supervisable) {
    return false;
  }
  send_mode(port, data);
  return true;
}

bool iobox_set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** /*error*/) {
  port->ranges = std::move(ranges);
  return true;
}

std::optional<SupervisedReadout> iobox_get_supervised_readout(IoPort* port, GError** /*error*/) {
  return SupervisedReadout{.state = visible_state(port, backend_data_ensure<IoboxPortData>(port))};
}

Level iobox_get_state(IoPort* port) {
  return supervised_level_of(visible_state(port, backend_data_ensure<IoboxPortData>(port)));
}

void iobox_set_state(IoPort* port, Level level) {
  auto* data = backend_data_ensure<IoboxPortData>(port);
  set_output(data, level);
  send_mode(port, data);
}

bool iobox_set_watch(IoPort* port) {
  backend_data_ensure<IoboxPortData>(port)->bus.watching = true;
  return true;
}

void iobox_set_direction(IoPort* port, Direction /*direction*/) {
  send_mode(port, backend_data_ensure<IoboxPortData>(port));
}

constexpr PortFunctions functions = backend_table<IoboxPortData>({
    .setup = iobox_port_setup,
    .is_supervisable = iobox_is_supervisable,
    .set_supervised = iobox_set_supervised,
    .get_supervised_ranges = supervised_get_supervised_ranges,
    .set_supervised_ranges = iobox_set_supervised_ranges,
    .get_supervised_readout = iobox_get_supervised_readout,
    .get_state = iobox_get_state,
    .set_state = iobox_set_state,
    .set_watch = iobox_set_watch,
    .set_direction = iobox_set_direction,
    .parse_data = iobox_parse_data,
});
static_assert(port_functions_valid(functions));

} // namespace

const PortFunctions* iobox_setup_functions(IoPort* port) {
  return backend_attach<IoboxPortData>(port, functions);
}
