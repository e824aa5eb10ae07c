// What the services around the daemon send: answers of any type and any bytes to whatever they are
// asked, signals unasked, and their coming and going.
#include "fuzz-bus.h"

#include "core/conf-reader.h"
#include "peers/action-engine.h"
#include "peers/bootblock.h"
#include "peers/virtual-input.h"
#include "platform/bus-connection.h"
#include "port/action-sequence.h"

#include <array>
#include <map>
#include <mutex>

void bootblock_read_param(const char* /*name*/, gchar** value) {
  *value = g_strdup("ABC123");
}

namespace {

constexpr std::string_view description = R"(<config>
<port name="line"><port_no nbr="0"/><port_type type="input"/><properties ioport="true"/>
  <backend name="iobox"/></port>
<port name="relay"><port_no nbr="1"/><port_type type="output"/><properties ioport="true"/>
  <backend name="iobox"/></port>
<port name="guarded"><port_no nbr="2"/><port_type type="input"/>
  <properties ioport="true" supervised="true"/><backend name="iobox"/></port>
<port name="lamp"><port_no nbr="3"/><port_type type="output"/><properties ioport="true"/>
  <backend name="zwave"/></port>
<port name="bell"><port_no nbr="4"/><port_type type="input"/><properties ioport="true"/>
  <backend name="zwave"/></port>
<first_virtual_input nbr="8"/>
</config>
)";

constexpr std::array names{"com.norv.IOBoxMonitor", "com.norv.ZWave.IO", "com.norv.Streamer",
                           "com.norv.PTZ.Coordinator", "com.norv.Event.ActionEngine.User"};

const std::map<std::string_view, const char*> answer_types{
    {"GetIOBoxConnected", "(b)"}, {"GetIOBoxType", "(s)"},  {"GetIOPortStatus", "(s)"},
    {"GetSupervised", "(b)"},     {"GetIOState", "(s)"},    {"SetIOMode", "()"},
    {"GetStateByPort", "(b)"},    {"SetStateByPort", "()"}, {"List", "(a(sssa{ss}))"},
    {"AddFromFile", "()"},        {"Remove", "()"},         {"GetAll", "(a{sv})"},
};

// What a peer says where the daemon goes on only after the right word.
constexpr std::array right_words{"enabled", "x5210", "closed", "open", "cut", "short", ""};

// All peers are one connection. It answers from the bus library's thread, as the daemon's own waits
// for some answers.
class Peers {
public:
  Peers() : connection_(fuzz_connect()) {
    g_dbus_connection_add_filter(connection_.get(), filter, this, nullptr);
    for (const char* name : names) {
      ask_bus("RequestName", g_variant_new("(su)", name, 0U));
    }
  }

  void learn(FuzzInput answers) {
    const std::lock_guard guard(mutex_);
    answers_ = answers;
  }

  void come(const char* name) { ask_bus("RequestName", g_variant_new("(su)", name, 0U)); }
  void go(const char* name) { ask_bus("ReleaseName", g_variant_new("(s)", name)); }

  [[nodiscard]] GDBusConnection* connection() const { return connection_.get(); }

private:
  void ask_bus(const char* method, GVariant* arguments) {
    g_autoptr(GVariant) answer = g_dbus_connection_call_sync(
        connection_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        method, arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    fuzz_require(answer != nullptr);
  }

  static GDBusMessage* filter(GDBusConnection* connection, GDBusMessage* message, gboolean incoming,
                              gpointer peers) {
    if (incoming == FALSE
        || g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
      return message;
    }
    const ObjectRef<GDBusMessage> answer(static_cast<Peers*>(peers)->answer_to(message));
    std::ignore = g_dbus_connection_send_message(connection, answer.get(),
                                                 G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(message);
    return nullptr;
  }

  GDBusMessage* answer_to(GDBusMessage* call) {
    const std::lock_guard guard(mutex_);
    if (answers_.empty()) {
      return g_dbus_message_new_method_error_literal(call, "com.norv.Error.Fuzz", "no more");
    }
    GDBusMessage* const answer = g_dbus_message_new_method_reply(call);
    g_dbus_message_set_body(answer, body_of(g_dbus_message_get_member(call)).get());
    if (!fuzz_can_be_sent(answer)) {
      g_dbus_message_set_body(answer, g_variant_new("()"));
    }
    return answer;
  }

  VariantRef body_of(const char* member) {
    const guint8 kind = fuzz_take<guint8>(answers_) % 8;
    const auto found = answer_types.find(member);
    if (kind == 0 || found == answer_types.end()) {
      return fuzz_take_arguments(answers_, fuzz_take_type(answers_));
    }
    const std::string_view type = found->second;
    if (type == "(s)" && kind > 2) {
      const char* const word = right_words.at(fuzz_take<guint8>(answers_) % right_words.size());
      return VariantRef(g_variant_ref_sink(g_variant_new("(s)", word)));
    }
    if (type == "(a{sv})" && kind > 2) {
      return properties();
    }
    return fuzz_take_arguments(answers_, G_VARIANT_TYPE(type.data()));
  }

  VariantRef properties() {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("(a{sv})"));
    g_variant_builder_open(&builder, G_VARIANT_TYPE("a{sv}"));
    const bool enabled = fuzz_take<guint8>(answers_) % 2 != 0;
    g_variant_builder_add(&builder, "{sv}", "Enabled", g_variant_new_boolean(enabled));
    g_variant_builder_add(&builder, "{sv}", "PTZEnabled", g_variant_new_boolean(enabled));
    g_variant_builder_close(&builder);
    return VariantRef(g_variant_ref_sink(g_variant_builder_end(&builder)));
  }

  ObjectRef<GDBusConnection> connection_;
  std::mutex mutex_;
  FuzzInput answers_;
};

Peers& peers() {
  static auto* const instance = [] {
    fuzz_start_bus();
    fuzz_require(bus_connection_share([] { fuzz_require(false); }));
    return new Peers;
  }();
  return *instance;
}

// All that is on the way has arrived, and what followed from it.
void settle() {
  for (int i = 0; i < 3; i++) {
    fuzz_settle(peers().connection());
    fuzz_settle(bus_connection_shared(nullptr));
  }
}

void send_signal(FuzzInput& input) {
  struct Signal {
    const char* path;
    const char* interface_name;
    const char* name;
    const char* type;
  };
  static constexpr std::array signals{
      Signal{"/com/norv/IOBoxMonitor", "com.norv.IOBoxMonitor", "IOStateChanged", "(is)"},
      Signal{"/com/norv/ZWave", "com.norv.ZWave.IO", "StateChangedByPort", "(ib)"},
      Signal{"/com/norv/Streamer/Video/Channel/1", "com.norv.Streamer.Video.Channel",
             "EnabledChanged", "(b)"},
      Signal{"/com/norv/Streamer/Video/Channel/2", "com.norv.Streamer.Video.Channel",
             "EnabledChanged", "(b)"},
      Signal{"/com/norv/PTZ/Coordinator/1", "com.norv.PTZ.Coordinator", "PtzEnabledChanged",
             "(ib)"},
      Signal{"/com/norv/PTZ/Coordinator/1", "org.freedesktop.DBus.Properties", "PropertiesChanged",
             "(sa{sv}as)"},
  };
  const auto& signal = signals.at(fuzz_take<guint8>(input) % signals.size());
  const bool fitting = fuzz_take<guint8>(input) % 4 != 0;
  const VariantRef body =
      fuzz_take_arguments(input, fitting ? G_VARIANT_TYPE(signal.type) : fuzz_take_type(input));
  std::ignore =
      g_dbus_connection_emit_signal(peers().connection(), nullptr, signal.path,
                                    signal.interface_name, signal.name, body.get(), nullptr);
}

// The answers that a state gives are the peers' too.
void use_port(FuzzInput& input) {
  const IoPortRef port = io_port_list_get_port(fuzz_take<guint8>(input) % 12);
  if (port) {
    std::ignore = io_port_set_state(port.get(), fuzz_take<guint8>(input) % 2 != 0);
    std::ignore = io_port_get_state(port.get());
  }
}

void act(FuzzInput& input) {
  const guint8 what = fuzz_take<guint8>(input);
  const char* const name = names.at(what / 8 % names.size());
  switch (what % 8) {
  case 0:
    peers().go(name);
    break;
  case 1:
    peers().come(name);
    break;
  case 2:
    use_port(input);
    break;
  default:
    send_signal(input);
  }
  settle();
}

// One life of the ports and of those that follow the peers, as main() has it.
void live(FuzzInput input) {
  ConfReader reader;
  static const FuzzFile file(
      {reinterpret_cast<const guint8*>(description.data()), description.size()});
  fuzz_require(conf_read_configuration(reader, file.path()));
  conf_finish_reading();
  io_port_list_setup();
  {
    VirtualInput virtual_input;
    const ActionengineDbus action_engine;
    io_port_list_set_watch();
    virtual_input.init();
    settle();
    while (!input.empty()) {
      act(input);
    }
  }
  fuzz_check_ports();
  io_port_list_free();
  settle();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  FuzzInput input(data, size);
  const gsize answers = std::min<gsize>(fuzz_take<guint8>(input), input.size());
  for (const char* name : names) {
    peers().come(name);
  }
  peers().learn(input.first(answers));
  live(input.subspan(answers));
  return 0;
}
