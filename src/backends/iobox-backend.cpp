#include "backends/iobox-backend.h"

#include "backends/bus-port.h"
#include "backends/hardware.h"
#include "platform/log.h"
#include "platform/words.h"

#include <tuple>

namespace {

constexpr BusPortService service{.at = {.name = "com.norv.IOBoxMonitor",
                                        .path = "/com/norv/IOBoxMonitor",
                                        .interface_name = "com.norv.IOBoxMonitor",
                                        .flags = G_DBUS_PROXY_FLAGS_DO_NOT_LOAD_PROPERTIES}};
constexpr const char* default_model = "x5210";

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

constexpr BusPortSignal state_changed{
    .signal = {.name = "IOStateChanged", .type = "(is)"}, .state_of = [](GVariant* text) {
      return iobox_state_to_wexd_state(g_variant_get_string(text, nullptr));
    }};

// A question of the set-up, and what is told when it is not answered.
struct Question {
  const char* method;
  gint line;
  const char* failure;
};

class IoboxPort {
public:
  explicit IoboxPort(IoPort& port) : port_(port) {}

  bool setup(Level start);
  [[nodiscard]] bool is_supervisable() const { return supervisable_; }
  bool set_supervised();
  static const SupervisedRanges& get_supervised_ranges(IoPort* port) {
    return supervised_get_supervised_ranges(port);
  }
  static bool set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** error);
  [[nodiscard]] std::optional<SupervisedReadout> get_supervised_readout(GError** error) const;
  [[nodiscard]] Level get_state() const { return supervised_level_of(visible_state()); }
  void set_state(Level level);
  bool set_watch();
  void set_direction(Direction /*direction*/) { send_mode(); }
  void parse_data(const char* element, const char* key, const char* value);

private:
  GVariant* call(const char* method, GVariant* arguments, const GVariantType* reply_type) {
    return bus_port_call(bus_, method, arguments, reply_type, tell_failed_call);
  }
  [[nodiscard]] GVariant* number_argument() const { return g_variant_new("(i)", port_.number); }
  [[nodiscard]] const char* mode() const;
  void send_mode();
  void set_output(Level level);
  [[nodiscard]] SupervisedState visible_state() const;

  [[nodiscard]] bool reach_monitor();
  GVariant* ask(const Question& question, GVariant* arguments, const char* reply_type);
  std::optional<bool> ask_flag(const Question& question, GVariant* arguments = nullptr);
  OptionalText ask_text(const Question& question, GVariant* arguments = nullptr);
  [[nodiscard]] bool box_attached();
  [[nodiscard]] bool box_fits();
  [[nodiscard]] bool port_usable();
  [[nodiscard]] bool ask_supervisable();
  [[nodiscard]] bool ask_input_state();
  [[nodiscard]] bool start_state(Level start);
  void follow_box();

  IoPort& port_;
  bool supervisable_ = true;
  OptionalText box_name_;
  BusPort bus_;
};

void IoboxPort::parse_data(const char* element, const char* key, const char* value) {
  if (g_str_equal(element, "box") && g_str_equal(key, "name")) {
    box_name_ = value;
  }
}

const char* IoboxPort::mode() const {
  if (!io_port_input(&port_)) {
    return "out";
  }
  return io_port_supervised_input(&port_) ? "supervised_in" : "in";
}

void IoboxPort::send_mode() {
  [[maybe_unused]] g_autoptr(GVariant) reply =
      call("SetIOMode",
           g_variant_new("(iis)", port_.number, bus_.output_level == Level::High ? 1 : 0, mode()),
           nullptr);
}

void IoboxPort::set_output(Level level) {
  bus_.output_level = level;
  std::ignore = bus_port_show_output(bus_);
}

SupervisedState IoboxPort::visible_state() const {
  if (!bus_.connected) {
    return SUPERVISED_OPEN;
  }
  const SupervisedState state = bus_.state;
  return io_port_supervised_input(&port_) ? state : plain_state(state);
}

bool IoboxPort::reach_monitor() {
  constexpr gint line = 192;
  if (!bus_port_open(bus_, &port_, service, nullptr)) {
    g_message("%s%s@%d: Proxy for %s not available", log_prefix, "iobox_port_setup", line,
              service.at.name);
    return false;
  }
  return true;
}

GVariant* IoboxPort::ask(const Question& question, GVariant* arguments, const char* reply_type) {
  GVariant* const reply = call(question.method, arguments, G_VARIANT_TYPE(reply_type));
  if (reply == nullptr) {
    setup_failed(question.line, question.failure);
  }
  return reply;
}

std::optional<bool> IoboxPort::ask_flag(const Question& question, GVariant* arguments) {
  g_autoptr(GVariant) reply = ask(question, arguments, "(b)");
  if (reply == nullptr) {
    return std::nullopt;
  }
  gboolean flag = FALSE;
  g_variant_get(reply, "(b)", &flag);
  return flag != FALSE;
}

OptionalText IoboxPort::ask_text(const Question& question, GVariant* arguments) {
  g_autoptr(GVariant) reply = ask(question, arguments, "(s)");
  if (reply == nullptr) {
    return std::nullopt;
  }
  const gchar* text = nullptr;
  g_variant_get(reply, "(&s)", &text);
  return text;
}

bool IoboxPort::box_attached() {
  return ask_flag({"GetIOBoxConnected", 206, "Could not get IO box connection status"})
      .value_or(false);
}

bool IoboxPort::box_fits() {
  const auto model = ask_text({"GetIOBoxType", 218, "Could not get IO box type"});
  return model && *model == box_name_.value_or(default_model);
}

bool IoboxPort::port_usable() {
  return ask_text({"GetIOPortStatus", 242, "Could not get IO port status"}, number_argument())
         == "enabled";
}

bool IoboxPort::ask_supervisable() {
  const auto supervisable =
      ask_flag({"GetSupervised", 256, "Could not get Supervised value"}, number_argument());
  supervisable_ = supervisable.value_or(supervisable_);
  return supervisable.has_value();
}

bool IoboxPort::ask_input_state() {
  const auto state =
      ask_text({"GetIOState", 278, "Could not get initial IO state"}, number_argument());
  if (state) {
    bus_.state = iobox_state_to_wexd_state(state->c_str());
  }
  return state.has_value();
}

bool IoboxPort::start_state(Level start) {
  if (io_port_input(&port_)) {
    return ask_input_state();
  }
  set_output(start);
  send_mode();
  return true;
}

void IoboxPort::follow_box() {
  constexpr gint line = 295;
  if (!bus_port_follow(bus_, state_changed)) {
    setup_failed(line, "Failed to setup signal handler");
  }
}

bool IoboxPort::setup(Level start) {
  io_port_set_enabled(&port_, false);
  bus_.connected = false;
  if (!reach_monitor()) {
    return false;
  }
  bus_.connected = true;
  bus_.state = SUPERVISED_UNDEFINED;
  if (!box_attached() || !box_fits() || !port_usable()) {
    return false;
  }
  io_port_set_enabled(&port_, true);
  if (!ask_supervisable() || !start_state(start)) {
    return false;
  }
  follow_box();
  return true;
}

bool IoboxPort::set_supervised() {
  if (port_.supervised && !supervisable_) {
    return false;
  }
  send_mode();
  return true;
}

bool IoboxPort::set_supervised_ranges(IoPort* port, SupervisedRanges ranges, GError** /*error*/) {
  port->ranges = std::move(ranges);
  return true;
}

std::optional<SupervisedReadout> IoboxPort::get_supervised_readout(GError** /*error*/) const {
  return SupervisedReadout{.state = visible_state()};
}

void IoboxPort::set_state(Level level) {
  set_output(level);
  send_mode();
}

bool IoboxPort::set_watch() {
  bus_.watching = true;
  return true;
}

} // namespace

const PortFunctions* iobox_setup_functions(IoPort* port) {
  return hardware_attach<IoboxPort>(port);
}
