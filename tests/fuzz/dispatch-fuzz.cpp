// What clients send over the bus: calls of every method, properties of every object, with arguments
// of any type and any bytes, and whole messages as bytes. Whoever waits for an answer gets one.
#include "fuzz-bus.h"
#include "fuzz-ports.h"

#include "dbus/iocontrol-conf-legacy-dbus.h"
#include "dbus/iocontrol.h"
#include "dbus/iosupervised.h"
#include "dbus/legacy-names.h"
#include "param/param.h"
#include "platform/bus-connection.h"
#include "port/action-sequence.h"

#include <dbus/iocontrol-manager-gen.h>
#include <dbus/iocontrol-state-gen.h>
#include <dbus/iosupervised-supervised-gen.h>
#include <dbus/wxd-connector-gen.h>

#include <filesystem>
#include <vector>

namespace {

constexpr const char* service_name = "com.norv.IOControl.State";

using Message = ObjectRef<GDBusMessage>;

struct Method {
  const char* path;
  const char* interface_name;
  const char* name;
  std::string type;
};

void add_methods(std::vector<Method>& methods, const char* path, const GDBusInterfaceInfo* info) {
  for (GDBusMethodInfo** method = info->methods; *method != nullptr; method++) {
    std::string type = "(";
    GDBusArgInfo** argument = (*method)->in_args;
    for (; argument != nullptr && *argument != nullptr; argument++) {
      type += (*argument)->signature;
    }
    methods.push_back({path, info->name, (*method)->name, type + ")"});
  }
}

// Those of the interfaces' own, and of the properties of each object.
std::vector<Method> all_methods() {
  std::vector<Method> methods;
  add_methods(methods, "/com/norv/IOControl/State", iocontrol_state_interface_info());
  add_methods(methods, "/com/norv/IOControl/Manager", iocontrol_manager1_interface_info());
  add_methods(methods, "/com/norv/WXD/Connector", wxd_connector_interface_info());
  add_methods(methods, "/com/norv/IOSupervised/Supervised",
              iosupervised_supervised_interface_info());
  return methods;
}

struct Daemon {
  Daemon() {
    fuzz_start_bus();
    std::filesystem::create_directories(param_folder);
    fuzz_add_ports();
    fuzz_require(bus_connection_share([] { fuzz_require(false); }));
    state = iocontrol_init_dbus(LegacyInterface::Served);
    supervised = iosupervised_init_dbus();
    legacy = iocontrol_conf_legacy_dbus_create();
    client = fuzz_connect();
    while (!is_owned(service_name) || !is_owned(legacy_ioport_interface)) {
      g_main_context_iteration(nullptr, FALSE);
    }
  }

  [[nodiscard]] bool is_owned(const char* name) const {
    g_autoptr(GVariant) answer = g_dbus_connection_call_sync(
        client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", name), nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr,
        nullptr);
    gboolean owned = FALSE;
    g_variant_get(answer, "(b)", &owned);
    return owned != FALSE;
  }

  IoControlOwner state;
  IoSupervisedOwner supervised;
  LegacyCtrlOwner legacy;
  ObjectRef<GDBusConnection> client;
  std::vector<Method> methods = all_methods();
};

Daemon& daemon_on_bus() {
  static auto* const instance = new Daemon;
  return *instance;
}

Message call_of_method(const Daemon& daemon, FuzzInput& input) {
  const Method& method = daemon.methods.at(fuzz_take<guint8>(input) % daemon.methods.size());
  Message message(g_dbus_message_new_method_call(service_name, method.path, method.interface_name,
                                                 method.name));
  const bool fitting = fuzz_take<guint8>(input) % 8 != 0;
  const GVariantType* const type =
      fitting ? G_VARIANT_TYPE(method.type.c_str()) : fuzz_take_type(input);
  g_dbus_message_set_body(message.get(), fuzz_take_arguments(input, type).get());
  return message;
}

// Any property of any port's object, set to anything.
Message call_of_property(FuzzInput& input) {
  struct Property {
    const char* interface_name;
    const char* name;
    const char* type;
  };
  static constexpr std::array properties{
      Property{legacy_ioport_interface, "Direction", "ay"},
      Property{legacy_ioport_interface, "Usage", "ay"},
      Property{legacy_ioport_interface, "NbrOfInputs", "i"},
      Property{legacy_input_interface, "Name", "ay"},
      Property{legacy_input_interface, "Trig", "ay"},
      Property{legacy_output_interface, "Name", "ay"},
      Property{legacy_output_interface, "Active", "ay"},
      Property{legacy_output_interface, "Button", "ay"},
      Property{legacy_output_interface, "PulseTime", "i"},
      Property{legacy_output_interface, "Mode", "ay"},
      Property{legacy_output_interface, "DelayTime", "i"},
  };
  const auto& property = properties.at(fuzz_take<guint8>(input) % properties.size());
  const std::string path =
      std::string(legacy_base_path) + "/" + std::to_string(fuzz_take<guint8>(input) % 8);
  Message message(g_dbus_message_new_method_call(legacy_ioport_interface, path.c_str(),
                                                 "org.freedesktop.DBus.Properties", "Set"));
  const bool fitting = fuzz_take<guint8>(input) % 8 != 0;
  const GVariantType* const type = fitting ? G_VARIANT_TYPE(property.type) : fuzz_take_type(input);
  g_dbus_message_set_body(message.get(),
                          g_variant_new("(ssv)", property.interface_name, property.name,
                                        fuzz_take_arguments(input, type).get()));
  return message;
}

// The rest of the input as it stands; nothing where it is no message. A message that is no call is
// none that anyone may send to a service unasked.
Message message_of_bytes(FuzzInput& input) {
  std::vector<guint8> bytes(input.begin(), input.end());
  input = {};
  if (bytes.empty()) {
    return nullptr;
  }
  fuzz_judge_glib(false); // of bytes that a bus would never pass on
  Message message(g_dbus_message_new_from_blob(bytes.data(), bytes.size(),
                                               G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
  fuzz_judge_glib(true);
  if (message == nullptr
      || g_dbus_message_get_message_type(message.get()) != G_DBUS_MESSAGE_TYPE_METHOD_CALL
      || g_dbus_message_get_num_unix_fds(message.get()) != 0) {
    return nullptr;
  }
  g_dbus_message_set_destination(message.get(), service_name);
  g_dbus_message_set_sender(message.get(), nullptr);
  return message;
}

Message take_message(const Daemon& daemon, FuzzInput& input) {
  switch (fuzz_take<guint8>(input) % 4) {
  case 0:
    return message_of_bytes(input);
  case 1:
    return call_of_property(input);
  default:
    return call_of_method(daemon, input);
  }
}

void on_answer(GObject* connection, GAsyncResult* result, gpointer answered) {
  const Message answer(g_dbus_connection_send_message_with_reply_finish(
      G_DBUS_CONNECTION(connection), result, nullptr));
  fuzz_require(answer != nullptr); // none in time
  *static_cast<bool*>(answered) = true;
}

void send_and_wait(const Daemon& daemon, GDBusMessage* message) {
  constexpr int patience_ms = 8000;
  const auto flags = g_dbus_message_get_flags(message);
  if ((flags & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) != 0) {
    std::ignore = g_dbus_connection_send_message(daemon.client.get(), message,
                                                 G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    fuzz_settle(daemon.client.get());
    return;
  }
  bool answered = false;
  g_dbus_connection_send_message_with_reply(daemon.client.get(), message,
                                            G_DBUS_SEND_MESSAGE_FLAGS_NONE, patience_ms, nullptr,
                                            nullptr, on_answer, &answered);
  while (!answered) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  const Daemon& daemon = daemon_on_bus();
  FuzzInput input(data, size);
  while (!input.empty()) {
    const Message message = take_message(daemon, input);
    if (message != nullptr && fuzz_can_be_sent(message.get())) {
      send_and_wait(daemon, message.get());
    }
  }
  action_sequences_stop();
  fuzz_check_ports();
  return 0;
}
